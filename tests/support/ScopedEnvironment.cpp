#include "tests/support/ScopedEnvironment.h"

#include <stdlib.h>

#include <utility>

namespace kestrune::support {

namespace {

void put(const std::string& name, const std::optional<std::string>& value) {
  if (value) {
    ::setenv(name.c_str(), value->c_str(), 1);
  } else {
    ::unsetenv(name.c_str());
  }
}

}  // namespace

ScopedEnvironment::ScopedEnvironment(std::string name, const std::optional<std::string>& value)
    : name_(std::move(name)) {
  if (const char* present = ::getenv(name_.c_str())) before_ = present;
  put(name_, value);
}

ScopedEnvironment::~ScopedEnvironment() { put(name_, before_); }

}  // namespace kestrune::support
