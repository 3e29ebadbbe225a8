// The clipboard of the desktop session that this process belongs to, written through the session's
// own program. Which one is decided by the environment at each writing.
#pragma once

#include <chrono>

#include "platform/pasteboard/NSPasteboard.h"

namespace kestrune::platform {

class SessionPasteboard final : public NSPasteboard {
 public:
  /// How long the program may take before it is ended and the writing fails.
  static constexpr std::chrono::seconds kPatience{5};

  void replaceContents(const std::string& text) override;
};

}  // namespace kestrune::platform
