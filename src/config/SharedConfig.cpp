#include "config/SharedConfig.h"

#include <utility>

#include "config/StorageLocations.h"
#include "platform/files/AtomicFile.h"
#include "platform/values/Json.h"
#include "platform/values/NSError.h"

namespace kestrune {

using platform::Json;
using platform::NSCocoaError;
using platform::NSError;

namespace {

// A configuration is a few hundred bytes; anything larger is not one.
constexpr std::uint64_t kMaximumBytes = 1U << 20U;

std::optional<std::string> textOrAbsent(const Json& record, const char* key) {
  const auto found = record.find(key);
  if (found == record.end() || found->is_null()) return std::nullopt;
  if (!found->is_string()) {
    throw NSCocoaError(NSCocoaError::coderInvalidValue,
                       std::string("\"") + key + "\" is not a text");
  }
  return found->get<std::string>();
}

}  // namespace

SharedConfig::Payload SharedConfig::Payload::decode(std::string_view text) {
  const Json record = platform::decodeJson(text);
  if (!record.is_object())
    throw NSCocoaError(NSCocoaError::coderInvalidValue, "the configuration is not an object");
  Payload payload;
  payload.apiURL = textOrAbsent(record, "apiURL");
  if (auto token = textOrAbsent(record, "token")) payload.token.emplace(std::move(*token));
  return payload;
}

std::string SharedConfig::Payload::encode() const {
  Json record = Json::object();
  if (apiURL) record["apiURL"] = *apiURL;
  if (token) record["token"] = token->reveal();
  return platform::encodeJson(record);
}

std::filesystem::path SharedConfig::configDir() { return storage::sharedDirectory(); }

std::filesystem::path SharedConfig::file() { return configDir() / storage::kConfigurationFile; }

std::optional<SharedConfig::Payload> SharedConfig::read() {
  try {
    return Payload::decode(platform::readFile(file(), kMaximumBytes));
  } catch (const NSError&) {
    return std::nullopt;  // missing, unreadable and malformed are all "not configured", reported by
                          // each request
  }
}

std::optional<std::string> SharedConfig::apiURL() {
  auto payload = read();
  return payload ? std::move(payload->apiURL) : std::nullopt;
}

std::optional<platform::Secret> SharedConfig::token() {
  auto payload = read();
  return payload ? std::move(payload->token) : std::nullopt;
}

}  // namespace kestrune
