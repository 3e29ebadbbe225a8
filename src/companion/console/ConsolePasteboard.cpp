#include "companion/console/ConsolePasteboard.h"

#include "platform/tasks/MainQueue.h"

namespace kestrune {

void ConsolePasteboard::replaceContents(const std::string& text) {
  const char* thread = platform::isMainThread() ? "main" : "task";
  writer_->write(nullptr, "pasteboard", {{"text", text}, {"thread", thread}});
}

}  // namespace kestrune
