// An environment variable with another value (or none) for the time of a scope. It is the
// environment of the whole process: each test case runs in a process of its own, and no other
// thread may read the environment at that moment.
#pragma once

#include <optional>
#include <string>

namespace kestrune::support {

class ScopedEnvironment {
 public:
  /// Sets `name` to `value`, or removes it.
  ScopedEnvironment(std::string name, const std::optional<std::string>& value);
  /// Puts back what was there before.
  ~ScopedEnvironment();
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::string name_;
  std::optional<std::string> before_;
};

}  // namespace kestrune::support
