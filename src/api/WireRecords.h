// The small replies of the remote service, as JSON objects. Every field is required and a text;
// unknown keys are ignored. Each `decode` throws NSCocoaError if the value is not such a record;
// each `encode` writes the same keys back. Plain values.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "platform/values/Json.h"

namespace kestrune {

/// A pre-signed single-request transfer.
struct PresignResponse {
  std::string url;     // a secret: whoever has it may transfer
  std::string method;  // the method to use with it
  std::string path;    // the remote path, as the service names it
  static PresignResponse decode(const platform::Json& reply);
  platform::Json encode() const;
  bool operator==(const PresignResponse&) const = default;
};

/// A pre-signed direct upload, imported afterwards under its key.
struct DirectPresignResponse {
  std::string uploadId;
  std::string url;
  std::string key;
  static DirectPresignResponse decode(const platform::Json& reply);
  platform::Json encode() const;
  bool operator==(const DirectPresignResponse&) const = default;
};

/// A started multipart upload.
struct DirectMultipartInitResponse {
  std::string uploadId;
  std::string s3UploadId;
  std::string key;
  static DirectMultipartInitResponse decode(const platform::Json& reply);
  platform::Json encode() const;
  bool operator==(const DirectMultipartInitResponse&) const = default;
};

/// The address of one part.
struct PartURLResponse {
  std::string url;
  static PartURLResponse decode(const platform::Json& reply);
  platform::Json encode() const;
  bool operator==(const PartURLResponse&) const = default;
};

/// The reply of calls that have nothing to say: an object whose values are all texts. Anything else
/// is refused although the service has done the work by then.
struct StringDictionary {
  std::map<std::string, std::string> values;
  static StringDictionary decode(const platform::Json& reply);
};

/// The same, or null.
struct OptionalStringDictionary {
  std::optional<StringDictionary> dictionary;
  static OptionalStringDictionary decode(const platform::Json& reply);
};

}  // namespace kestrune
