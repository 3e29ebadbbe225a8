#include "companion/doctor/Findings.h"

#include <algorithm>
#include <utility>

#include "platform/log/Log.h"
#include "platform/values/UTF8.h"

namespace kestrune {

namespace {

using Level = Finding::Level;

constexpr std::size_t kLevelWidth = 9;
constexpr std::size_t kAboutWidth = 14;

const char* nameOf(Level level) {
  switch (level) {
    case Level::ok:
      return "ok";
    case Level::warning:
      return "warning";
    case Level::problem:
      return "problem";
  }
}

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(width, text.size() + 1), ' ');
  return text;
}

std::size_t countOf(const Findings& findings, Level level) {
  return static_cast<std::size_t>(
      std::count_if(findings.begin(), findings.end(),
                    [level](const Finding& finding) { return finding.level == level; }));
}

std::string validText(const std::string& any) {
  return platform::isValidUTF8(any) ? any : platform::escapeForDisplay(any);
}

}  // namespace

Finding fine(std::string about, std::string text) {
  return {Level::ok, std::move(about), std::move(text), {}};
}
Finding warning(std::string about, std::string text, std::string advice) {
  return {Level::warning, std::move(about), std::move(text), std::move(advice)};
}
Finding problem(std::string about, std::string text, std::string advice) {
  return {Level::problem, std::move(about), std::move(text), std::move(advice)};
}

bool hasProblem(const Findings& findings) { return countOf(findings, Level::problem) > 0; }

std::string findingsText(const Findings& findings, Escaping escaping) {
  std::string text;
  for (const Finding& finding : findings) {
    text += padded(nameOf(finding.level), kLevelWidth) + padded(finding.about, kAboutWidth) +
            escapedText(finding.text, escaping) + "\n";
    if (!finding.advice.empty())
      text += std::string(kLevelWidth + kAboutWidth, ' ') + "-> " +
              escapedText(finding.advice, escaping) + "\n";
  }
  const std::size_t problems = countOf(findings, Level::problem);
  const std::size_t warnings = countOf(findings, Level::warning);
  if (problems + warnings == 0) return text + "All is well.\n";
  return text + std::to_string(problems) + (problems == 1 ? " problem, " : " problems, ") +
         std::to_string(warnings) + (warnings == 1 ? " warning.\n" : " warnings.\n");
}

platform::Json findingsJson(const Findings& findings) {
  platform::Json list = platform::Json::array();
  for (const Finding& finding : findings) {
    platform::Json one{{"level", nameOf(finding.level)},
                       {"about", finding.about},
                       {"text", validText(finding.text)}};
    if (!finding.advice.empty()) one["advice"] = validText(finding.advice);
    list.push_back(std::move(one));
  }
  return {{"problems", countOf(findings, Level::problem)},
          {"warnings", countOf(findings, Level::warning)},
          {"findings", std::move(list)}};
}

}  // namespace kestrune
