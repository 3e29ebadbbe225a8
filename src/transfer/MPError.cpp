#include "transfer/MPError.h"

#include <utility>

namespace kestrune {

MPError::MPError(Case which, std::string description)
    : NSErrorOf(kDomain, static_cast<std::int64_t>(which), std::move(description)) {}

MPError MPError::initFailed(const std::string& message) {
  return {Case::initFailed, "multipart init: " + message};
}

MPError MPError::partFailed(std::int64_t partNumber, const std::string& message) {
  return {Case::partFailed, "part " + std::to_string(partNumber) + ": " + message};
}

MPError MPError::completeFailed(const std::string& message) {
  return {Case::completeFailed, "multipart complete: " + message};
}

MPError MPError::readFailed(const std::string& message) {
  return {Case::readFailed, "file read: " + message};
}

const char* MPError::caseName() const {
  switch (which()) {
    case Case::initFailed:
      return "initFailed";
    case Case::partFailed:
      return "partFailed";
    case Case::completeFailed:
      return "completeFailed";
    case Case::readFailed:
      return "readFailed";
  }
  return "unknown";
}

}  // namespace kestrune
