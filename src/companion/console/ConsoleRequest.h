// One call as it was read: a JSON object with "id", "op" and the arguments of the op. Arguments are
// asked for by name and type; nothing is converted: 1.0 is no integer and "1" is no number. An
// optional argument that is null counts as not given.
//
// Threads: a value. Fails: InvalidCall, whose text tells the writer of the line what is wrong with
// it.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/values/Json.h"

namespace kestrune {

/// A line that is no call. It is thrown before anything was done about the line.
class InvalidCall : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ConsoleRequest {
 public:
  /// Throws InvalidCall unless `line` is one JSON object.
  static ConsoleRequest parse(std::string_view line);

  /// The id, or null where there is none.
  const platform::Json& idOrNull() const;

  /// Throws InvalidCall where there is no id.
  const platform::Json& id() const { return required("id"); }
  std::string op() const { return text("op"); }

  // Each throws InvalidCall if the argument is missing or of another type.
  std::string text(std::string_view name) const;
  std::int64_t integer(std::string_view name) const;
  double number(std::string_view name) const;
  std::vector<std::string> texts(std::string_view name) const;
  const platform::Json& required(std::string_view name) const;

  // Each is empty if the argument is missing, and throws InvalidCall if it is of another type.
  std::optional<std::string> optionalText(std::string_view name) const;
  std::optional<std::int64_t> optionalInteger(std::string_view name) const;
  std::optional<bool> optionalBoolean(std::string_view name) const;
  std::optional<std::vector<std::string>> optionalTexts(std::string_view name) const;

  /// Whether the argument is there, null included.
  bool has(std::string_view name) const { return find(name) != nullptr; }

 private:
  explicit ConsoleRequest(platform::Json object) : object_(std::move(object)) {}
  const platform::Json* find(std::string_view name) const;
  const platform::Json* findGiven(std::string_view name) const;

  platform::Json object_;
};

/// `text` short enough to be quoted in a message.
std::string abbreviated(std::string_view text);

}  // namespace kestrune
