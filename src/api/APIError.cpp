#include "api/APIError.h"

#include <utility>

namespace kestrune {

APIError::APIError(Case which, std::string description, UserInfo userInfo, int status)
    : NSErrorOf(kDomain, static_cast<std::int64_t>(which), std::move(description),
                std::move(userInfo)),
      status_(status) {}

APIError APIError::http(int status, const std::string& body) {
  const std::string code = std::to_string(status);
  return {Case::http, "HTTP " + code + ": " + body, {{platform::kHTTPStatusCodeKey, code}}, status};
}

APIError APIError::decode(const platform::NSError& underlying) {
  return {Case::decode, "Decode error: " + underlying.localizedDescription(), {}, 0};
}

APIError APIError::notConfigured() {
  return {Case::notConfigured, "API URL or auth token missing", {}, 0};
}

const char* APIError::caseName() const {
  switch (which()) {
    case Case::http:
      return "http";
    case Case::decode:
      return "decode";
    case Case::notConfigured:
      return "notConfigured";
  }
  return "unknown";
}

}  // namespace kestrune
