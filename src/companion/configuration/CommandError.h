// What a command ends with when it could not do what it was asked: a text for the person who asked,
// which says what was tried, on what, why it failed, and what to do about it.
#pragma once

#include <stdexcept>

namespace kestrune {

class CommandError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

}  // namespace kestrune
