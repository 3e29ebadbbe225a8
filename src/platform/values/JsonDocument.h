// Large JSON texts (listings with a hundred thousand entries), parsed by simdjson: an order of
// magnitude faster than a tree of small objects. The whole text is checked before anything is
// handed out: well-formed, valid UTF-8, nesting at most kMaxJsonDepth.
//
// Threads: a document belongs to one thread at a time.
// Fails: NSCocoaError (coderInvalidValue); the description says what is wrong, never what the
// values are.
#pragma once

#include <simdjson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune::platform {

class JsonDocument {
 public:
  /// Parses `text`; a UTF-8 byte-order mark in front is skipped.
  explicit JsonDocument(std::string_view text);

  simdjson::dom::element root() const { return root_; }

 private:
  simdjson::dom::parser parser_;
  simdjson::dom::element root_;
};

/// The value's object. `what` names it in the error.
simdjson::dom::object jsonObject(simdjson::dom::element value, const char* what);

/// The array under `key`, which must be there.
simdjson::dom::array jsonArrayField(simdjson::dom::object record, const char* key);

/// The text under `key`, which must be there. The view lives as long as the document.
std::string_view jsonTextField(simdjson::dom::object record, const char* key);

/// The text under `key`; absent and null are the same, any other type is an error.
std::optional<std::string_view> jsonOptionalTextField(simdjson::dom::object record,
                                                      const char* key);

/// The number under `key`, which must be there and be a whole number of 64 bits ("5", "5.0" and
/// "5e0" are the same).
std::int64_t jsonIntegerField(simdjson::dom::object record, const char* key);

}  // namespace kestrune::platform
