#include "platform/values/Json.h"

#include <algorithm>

#include "platform/values/NSError.h"

namespace kestrune::platform {

namespace {

[[noreturn]] void refuse(const std::string& reason, std::size_t byte) {
  throw NSCocoaError(NSCocoaError::coderInvalidValue,
                     "invalid JSON at byte " + std::to_string(byte) + ": " + reason);
}

/// Refuses what the parser does not: nesting beyond the bound, and zero bytes, which it takes for
/// the end of the text. On a text that is malformed this may count wrongly, but then the parser
/// stops before the place where it does.
void checkBounds(std::string_view text) {
  int depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\0') refuse("a zero byte", i + 1);
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > kMaxJsonDepth) refuse("nested too deeply", i + 1);
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
}

/// Takes everything and keeps the first error: where, and what.
class ErrorFinder : public Json::json_sax_t {
 public:
  std::size_t byte = 0;
  std::string reason;

  bool null() override { return true; }
  bool boolean(bool) override { return true; }
  bool number_integer(number_integer_t) override { return true; }
  bool number_unsigned(number_unsigned_t) override { return true; }
  bool number_float(number_float_t, const string_t&) override { return true; }
  bool string(string_t&) override { return true; }
  bool binary(binary_t&) override { return true; }
  bool start_object(std::size_t) override { return true; }
  bool key(string_t&) override { return true; }
  bool end_object() override { return true; }
  bool start_array(std::size_t) override { return true; }
  bool end_array() override { return true; }
  bool parse_error(std::size_t position, const std::string&,
                   const nlohmann::detail::exception& error) override {
    byte = position;
    if (dynamic_cast<const Json::out_of_range*>(&error) != nullptr) {
      reason = "a number too large for a double";
      return false;
    }
    // The library's text ends with what was last read, which may be a secret.
    reason = error.what();
    if (const auto start = reason.find(" - "); start != std::string::npos)
      reason.erase(0, start + 3);
    if (const auto end = reason.find("; last read: "); end != std::string::npos) reason.erase(end);
    return false;
  }
};

}  // namespace

std::string encodeJson(const Json& value) {
  std::string plain;
  try {
    plain = value.dump();
  } catch (const Json::type_error&) {
    throw NSCocoaError(NSCocoaError::coderInvalidValue,
                       "a text to be encoded as JSON is not valid UTF-8");
  }
  // A slash occurs in strings only, and the library never escapes it.
  std::string encoded;
  encoded.reserve(plain.size() +
                  static_cast<std::size_t>(std::count(plain.begin(), plain.end(), '/')));
  for (const char c : plain) {
    if (c == '/') encoded.push_back('\\');
    encoded.push_back(c);
  }
  return encoded;
}

Json decodeJson(std::string_view text) {
  checkBounds(text);
  try {
    return Json::parse(text);
  } catch (const Json::exception&) {
    ErrorFinder finder;
    Json::sax_parse(text, &finder);
    refuse(finder.reason, finder.byte);
  }
}

}  // namespace kestrune::platform
