// The shared configuration: "config.json" in the shared directory, written by the companion and
// only read here.
//
// Every read of a value reads the file anew, so a new token counts from the next request on. Two
// values are two reads; each comes from whichever file was there at its own time.
//
// Threads: callable from any thread. Fails: never; whatever is wrong with the file reads as "not
// configured".
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "platform/values/Secret.h"

namespace kestrune {

class SharedConfig {
 public:
  /// The record in the file. Absent and null are the same; unknown keys are ignored; a key of
  /// another type than text makes the whole file unreadable. An empty text is a value.
  struct Payload {
    std::optional<std::string> apiURL;
    std::optional<platform::Secret> token;

    /// Throws NSCocoaError if `text` is not such a record.
    static Payload decode(std::string_view text);
    /// Compact JSON with the fields that are present.
    std::string encode() const;
  };

  SharedConfig() = delete;

  /// The shared directory, made if it is missing.
  static std::filesystem::path configDir();
  static std::filesystem::path file();

  /// The base address of the service: request paths are appended as they stand.
  static std::optional<std::string> apiURL();
  /// The bearer token. It may be shown only as "present" or "missing".
  static std::optional<platform::Secret> token();

 private:
  static std::optional<Payload> read();
};

}  // namespace kestrune
