// Takes names out of what is sent to strangers: each becomes a short hash, the same one wherever it occurs and in later reports from
// this machine, so that who reads can tell what belongs together, and nothing else. The hashes depend on a number that only this
// machine has: nobody can find a name by trying.
//
// Texts for people quote names in all ways, so text is left out rather than let through: what stands in quotes becomes a hash as a
// whole, and where a path begins without quotes, the rest is left out.
//
// Threads: callable from any thread.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/values/Json.h"

namespace kestrune {

class Anonymizer {
 public:
  /// `key`: what the hashes depend on.
  explicit Anonymizer(std::string key) : key_(std::move(key)) {}
  /// With a key of this machine's own (/etc/machine-id); a new one each time where it has none.
  static Anonymizer here();

  /// Texts that are replaced wherever they occur: a host's name, a user's. Short ones, of less than 3 bytes, are not.
  void hide(const std::string& text);

  std::string name(const std::string& name) const;
  /// Each part of it; "/" stays.
  std::string path(const std::string& path) const;
  std::string text(const std::string& text) const;
  /// Of {"count":…,"changes":[…]} as hosts tell what is pending.
  platform::Json pending(const platform::Json& pending) const;

 private:
  std::string plainText(const std::string& text) const;

  const std::string key_;
  std::vector<std::pair<std::string, std::string>> hidden_;
};

}  // namespace kestrune
