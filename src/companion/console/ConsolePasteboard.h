// The general pasteboard as the console plays it: it prints what is written to it, and the user's
// own stays as it is.
//
// Threads: any; it prints whether it was the main one, where a pasteboard is to be written.
#pragma once

#include <memory>
#include <string>

#include "companion/console/ConsoleWriter.h"
#include "platform/pasteboard/NSPasteboard.h"

namespace kestrune {

class ConsolePasteboard final : public platform::NSPasteboard {
 public:
  explicit ConsolePasteboard(std::shared_ptr<ConsoleWriter> writer) : writer_(std::move(writer)) {}

  void replaceContents(const std::string& text) override;

 private:
  const std::shared_ptr<ConsoleWriter> writer_;
};

}  // namespace kestrune
