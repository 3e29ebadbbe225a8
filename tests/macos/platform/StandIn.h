// How a test sees and steers the stand-in platform. Plain C++, so that it can be included anywhere.
//
// Threads: every function may be called from any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace standin {

/// One line of the unified log.
struct LogLine {
  std::string subsystem;
  std::string category;
  int type;
  std::string format;
  /// The line as a release log shows it: what is private reads "<private>".
  std::string message;
};
std::vector<LogLine> logLines();

/// One call of a manager.
struct ManagerCall {
  std::string domain;
  /// "evict", "download", "signal", "add" or "remove".
  std::string what;
  std::string identifier;
  /// Of a download: NSNotFound and 0 ask for everything.
  std::uint64_t location = 0;
  std::uint64_t length = 0;
  bool operator==(const ManagerCall&) const = default;
};
std::vector<ManagerCall> managerCalls();
/// Calls about `identifier` fail from now on with this error of NSFileProviderErrorDomain.
void failCallsAbout(const std::string& identifier, long code, const std::string& description);
/// Whether +managerForDomain: finds one.
void setHasManagers(bool has);

/// The text on the pasteboard; none while it is clear.
std::optional<std::string> pasteboardText();
/// Whether every touch of the pasteboard came from the main thread.
bool pasteboardWasTouchedOnMainThreadOnly();

/// Runs the main queue's work on this thread until `condition` holds; false if `patience` ends first.
[[nodiscard]] bool serveMainQueueUntil(
    const std::function<bool()>& condition,
    std::chrono::milliseconds patience = std::chrono::seconds(30));

}  // namespace standin
