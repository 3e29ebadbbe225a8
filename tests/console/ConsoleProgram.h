// `kestrune console` as a child process, and calls to it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/values/Json.h"
#include "tests/console/ChildProgram.h"

namespace kestrune {

class ConsoleProgram {
 public:
  explicit ConsoleProgram(std::vector<std::string> arguments = {});

  /// Makes one call, waits until it has settled (or completed, where it does not settle) and
  /// returns all lines printed meanwhile that carry its id. `arguments` as in `,"identifier":"/a"`.
  std::vector<platform::Json> call(const std::string& op, const std::string& arguments = "");

  /// The one line of `lines` with this event; fails the test if there is none or more than one.
  static platform::Json only(const std::vector<platform::Json>& lines, std::string_view event);
  /// The call's only completion.
  platform::Json completion(const std::string& op, const std::string& arguments) {
    return only(call(op, arguments), "completion");
  }

  /// Reads until a line of this event, of whatever id; nothing at the end of the output.
  platform::Json readUntil(std::string_view event);

  ChildProgram& program() { return program_; }
  /// Every line read so far.
  const std::vector<platform::Json>& lines() const { return lines_; }
  const std::string& text() const { return text_; }

 private:
  std::optional<platform::Json> read();

  ChildProgram program_;
  int lastId_ = 0;
  std::vector<platform::Json> lines_;
  std::string text_;
};

}  // namespace kestrune
