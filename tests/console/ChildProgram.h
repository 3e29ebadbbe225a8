// A program of the project as a child process, with its three streams in the test's hands.
//
// Whatever happens, the child is gone when the object is: it is killed if it still runs. Reading
// and waiting have a deadline; what has not come by then fails the test.
//
// Threads: one.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kestrune {

class ChildProgram {
 public:
  /// Starts a program of the build with this process's environment. Throws std::runtime_error if it
  /// cannot.
  explicit ChildProgram(const std::string& name, const std::vector<std::string>& arguments = {});
  ~ChildProgram();
  ChildProgram(const ChildProgram&) = delete;
  ChildProgram& operator=(const ChildProgram&) = delete;

  /// Writes to its standard input. It must not be closed.
  void write(std::string_view bytes) const;
  void closeInput();

  /// The next line of its standard output without the line feed; nothing at the end.
  std::optional<std::string> readLine();
  /// Closes the reading end of its standard output.
  void closeOutput();

  /// Closes the input, waits for the end and returns the exit status (minus the number of the
  /// signal that ended it).
  int finish();
  void signal(int number) const;
  pid_t pid() const { return pid_; }

  /// What it has written to standard error.
  std::string errors() const;

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  int errors_ = -1;
  std::string unread_;
};

}  // namespace kestrune
