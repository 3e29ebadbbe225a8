// `kestrune` with a terminal of its own, in the test's hands. Whatever happens, it is gone when the object is.
//
// Threads: one. Waiting has a deadline; what has not come by then fails the test.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace kestrune {

class TerminalProgram {
 public:
  explicit TerminalProgram(const std::vector<std::string>& arguments);
  ~TerminalProgram();
  TerminalProgram(const TerminalProgram&) = delete;
  TerminalProgram& operator=(const TerminalProgram&) = delete;

  void resize(unsigned short columns, unsigned short lines) const;
  void type(const std::string& keys) const;
  void signal(int number) const;
  /// Whether what is typed is shown.
  bool echoes() const;
  /// All that came until `text` did, since the last call.
  std::string readUntil(const std::string& text);
  /// The exit code, or minus the signal that ended it; and the last of what it wrote.
  int end(std::string& rest);

 private:
  std::string readSome() const;

  pid_t pid_ = -1;
  int terminal_ = -1;
};

}  // namespace kestrune
