// The general pasteboard: what the user pastes next.
//
// On Linux it is the desktop's clipboard, reached through the program that the desktop's users have
// for it: wl-copy where WAYLAND_DISPLAY is set, else xclip where DISPLAY is set. Each keeps serving
// the text in a process of its own after it was handed over; who pastes within the next
// milliseconds may still get what was there before.
//
// On macOS it is AppKit's, which this library does not use: the program around it sets one that
// writes there (setGeneral). Until then writing throws NSCocoaError featureUnsupported.
//
// Threads: `general` and `setGeneral` on any thread; a pasteboard itself on the main thread alone,
// as the platform demands (MainQueue). Writing blocks on Linux for as long as the program needs to
// take the text over, five seconds at most.
#pragma once

#include <memory>
#include <string>

namespace kestrune::platform {

class NSPasteboard {
 public:
  virtual ~NSPasteboard() = default;

  /// Clears the pasteboard and makes `text` (which may be empty) its plain-text string. Throws
  /// NSError with a description that says what is missing: no desktop session, no such program, or
  /// a program that failed. What was on the pasteboard may then be gone.
  virtual void replaceContents(const std::string& text) = 0;

  /// The pasteboard of the user's session, unless another was set.
  static std::shared_ptr<NSPasteboard> general();

  /// Puts another in its place; null restores the session's own. For programs that show what is
  /// written instead of writing it, and for those that bring the system's.
  static void setGeneral(std::shared_ptr<NSPasteboard> pasteboard);
};

}  // namespace kestrune::platform
