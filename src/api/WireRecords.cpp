#include "api/WireRecords.h"

#include "platform/values/NSError.h"

namespace kestrune {

using platform::Json;
using platform::NSCocoaError;

namespace {

[[noreturn]] void refuse(const std::string& reason) {
  throw NSCocoaError(NSCocoaError::coderInvalidValue,
                     "The data is not in the correct format: " + reason);
}

std::string textField(const Json& record, const char* key) {
  if (!record.is_object()) refuse("the reply is not an object");
  const auto found = record.find(key);
  if (found == record.end()) refuse(std::string("\"") + key + "\" is missing");
  if (!found->is_string()) refuse(std::string("\"") + key + "\" is not a text");
  return found->get<std::string>();
}

}  // namespace

PresignResponse PresignResponse::decode(const Json& reply) {
  return {textField(reply, "url"), textField(reply, "method"), textField(reply, "path")};
}

Json PresignResponse::encode() const { return {{"url", url}, {"method", method}, {"path", path}}; }

DirectPresignResponse DirectPresignResponse::decode(const Json& reply) {
  return {textField(reply, "uploadId"), textField(reply, "url"), textField(reply, "key")};
}

Json DirectPresignResponse::encode() const {
  return {{"uploadId", uploadId}, {"url", url}, {"key", key}};
}

DirectMultipartInitResponse DirectMultipartInitResponse::decode(const Json& reply) {
  return {textField(reply, "uploadId"), textField(reply, "s3UploadId"), textField(reply, "key")};
}

Json DirectMultipartInitResponse::encode() const {
  return {{"uploadId", uploadId}, {"s3UploadId", s3UploadId}, {"key", key}};
}

PartURLResponse PartURLResponse::decode(const Json& reply) { return {textField(reply, "url")}; }

Json PartURLResponse::encode() const { return {{"url", url}}; }

StringDictionary StringDictionary::decode(const Json& reply) {
  if (!reply.is_object()) refuse("the reply is not an object");
  StringDictionary dictionary;
  for (const auto& [key, value] : reply.items()) {
    if (!value.is_string()) refuse("a value of the reply is not a text");
    dictionary.values.emplace(key, value.get<std::string>());
  }
  return dictionary;
}

OptionalStringDictionary OptionalStringDictionary::decode(const Json& reply) {
  if (reply.is_null()) return {};
  return {StringDictionary::decode(reply)};
}

}  // namespace kestrune
