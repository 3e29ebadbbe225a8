// Questions to who sits at the terminal, whatever standard input and output are.
//
// Threads: REQUIRES that no other thread runs (Signals.h). Fails: NSPOSIXError where there is no terminal; Interrupted.
#pragma once

#include <exception>
#include <string>

namespace kestrune {

/// Somebody ended the program while it asked; the terminal is as it was.
class Interrupted : public std::exception {
 public:
  explicit Interrupted(int signal) : signal_(signal) {}
  int signal() const { return signal_; }
  const char* what() const noexcept override { return "interrupted"; }

 private:
  int signal_;
};

enum class Echo { shown, hidden };

/// One line without its end.
std::string askAtTerminal(const std::string& question, Echo echo);

}  // namespace kestrune
