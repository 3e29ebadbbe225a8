// Linux: the clipboard of the desktop session that this process belongs to, written through the
// session's own program. Which one is decided by the environment at each writing.
#pragma once

#include <chrono>

#include "platform/pasteboard/NSPasteboard.h"

namespace kestrune::platform {

class SessionPasteboard final : public NSPasteboard {
 public:
  static constexpr std::chrono::seconds kPatience{5};

  /// `patience`: how long the program may take before it is ended and the writing fails.
  explicit SessionPasteboard(std::chrono::milliseconds patience = kPatience)
      : patience_(patience) {}

  void replaceContents(const std::string& text) override;

 private:
  const std::chrono::milliseconds patience_;
};

}  // namespace kestrune::platform
