#include "status/SyncStatus.h"

#include <string_view>

#include "platform/values/Json.h"
#include "platform/values/JsonText.h"
#include "platform/values/NSError.h"
#include "platform/values/UTF8.h"

namespace kestrune {

using platform::Json;
using platform::NSCocoaError;

namespace {

constexpr std::string_view kUpload = "upload";
constexpr std::string_view kDownload = "download";

[[noreturn]] void refuse(const std::string& reason) {
  throw NSCocoaError(NSCocoaError::coderInvalidValue, "the status record: " + reason);
}

void appendText(std::string& out, std::string_view text) {
  if (!platform::isValidUTF8(text)) refuse("a text is not valid UTF-8");
  platform::appendJsonText(out, text);
}

std::string_view directionText(SyncTransfer::Direction direction) {
  return direction == SyncTransfer::Direction::upload ? kUpload : kDownload;
}

void appendTransfer(std::string& out, const SyncTransfer& transfer) {
  out += "{\"id\":";
  appendText(out, transfer.id);
  out += ",\"path\":";
  appendText(out, transfer.path);
  out += ",\"bytesTransferred\":";
  out += std::to_string(transfer.bytesTransferred);
  out += ",\"totalBytes\":";
  out += std::to_string(transfer.totalBytes);
  out += ",\"direction\":";
  appendText(out, directionText(transfer.direction));
  out += ",\"startedAt\":";
  appendText(out, platform::formatISO8601(transfer.startedAt));
  out += "}";
}

const Json& field(const Json& record, const char* key) {
  if (!record.is_object()) refuse("not an object");
  const auto found = record.find(key);
  if (found == record.end()) refuse(std::string("\"") + key + "\" is missing");
  return *found;
}

std::string textField(const Json& record, const char* key) {
  const Json& value = field(record, key);
  if (!value.is_string()) refuse(std::string("\"") + key + "\" is not a text");
  return value.get<std::string>();
}

std::int64_t integerField(const Json& record, const char* key) {
  const Json& value = field(record, key);
  // A number beyond 64 bits with a sign is kept as an unsigned one or as a double.
  const bool fits = value.is_number_integer() &&
                    (!value.is_number_unsigned() || value.get<std::uint64_t>() <= INT64_MAX);
  if (!fits) refuse(std::string("\"") + key + "\" is not a whole number of 64 bits");
  return value.get<std::int64_t>();
}

platform::Date dateField(const Json& record, const char* key) {
  const auto date = platform::parseISO8601(textField(record, key));
  if (!date) refuse(std::string("\"") + key + "\" is no date");
  return *date;
}

SyncTransfer::Direction directionField(const Json& record, const char* key) {
  const std::string text = textField(record, key);
  if (text == kUpload) return SyncTransfer::Direction::upload;
  if (text == kDownload) return SyncTransfer::Direction::download;
  refuse(std::string("\"") + key + "\" is neither upload nor download");
}

}  // namespace

std::string SyncStatus::encode() const {
  std::string out = "{\"transfers\":[";
  for (const SyncTransfer& transfer : transfers) {
    if (out.back() == '}') out += ",";
    appendTransfer(out, transfer);
  }
  out += "],\"updatedAt\":";
  appendText(out, platform::formatISO8601(updatedAt));
  out += ",\"activeEnumerations\":";
  out += std::to_string(activeEnumerations);
  out += "}";
  return out;
}

SyncStatus SyncStatus::decode(std::string_view text) {
  const Json record = platform::decodeJson(text);
  const Json& records = field(record, "transfers");
  if (!records.is_array()) refuse("\"transfers\" is not an array");
  SyncStatus status;
  for (const Json& transfer : records) {
    status.transfers.push_back(
        {textField(transfer, "id"), textField(transfer, "path"),
         integerField(transfer, "bytesTransferred"), integerField(transfer, "totalBytes"),
         directionField(transfer, "direction"), dateField(transfer, "startedAt")});
  }
  status.updatedAt = dateField(record, "updatedAt");
  status.activeEnumerations = integerField(record, "activeEnumerations");
  return status;
}

}  // namespace kestrune
