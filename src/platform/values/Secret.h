// A text that must not be shown: a bearer token, a key. It has no stream operator and no conversion
// to text, so it cannot slip into a log line or an error; `reveal` marks the few places that need
// the value.
#pragma once

#include <string>
#include <utility>

namespace kestrune::platform {

class Secret {
 public:
  explicit Secret(std::string value) : value_(std::move(value)) {}
  const std::string& reveal() const noexcept { return value_; }

 private:
  std::string value_;
};

}  // namespace kestrune::platform
