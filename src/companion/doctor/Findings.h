// What "kestrune doctor" found: lines that each say whether one thing is well, and if not, what to do.
//
// Threads: plain functions.
#pragma once

#include <string>
#include <vector>

#include "companion/control/ControlText.h"
#include "platform/values/Json.h"

namespace kestrune {

struct Finding {
  enum class Level { ok, warning, problem };
  Level level = Level::ok;
  /// A short name that stays as it is, for programs: "fuse-device".
  std::string about;
  /// What is so.
  std::string text;
  /// What to do; empty where it is well.
  std::string advice;
};
using Findings = std::vector<Finding>;

Finding fine(std::string about, std::string text);
Finding warning(std::string about, std::string text, std::string advice);
Finding problem(std::string about, std::string text, std::string advice);

/// Whether there is one at the level `problem`.
bool hasProblem(const Findings& findings);

/// A line each: "ok       fuse-device   …", with the advice on a line of its own; then how many of each.
std::string findingsText(const Findings& findings, Escaping escaping);
/// {"problems":1,"warnings":2,"findings":[{"level":"problem","about":"…","text":"…","advice":"…"}]}
platform::Json findingsJson(const Findings& findings);

}  // namespace kestrune
