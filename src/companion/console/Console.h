// The system console: one extension for one domain in this process, and in the system's place
// whoever writes the calls.
//
// It reads one call a line, a JSON object, and prints what happened, one JSON object a line. It
// adds nothing of its own: no replica, no retry. Calls run side by side. docs/console.md describes
// the calls and the lines.
//
// The console is the process's log sink and pasteboard and provides its managers while it lives, so
// there is one at a time; it takes them over before it makes the extension, whose first log line is
// printed too.
//
// Threads: belongs to one thread, on which it makes all calls.
#pragma once

#include <functional>
#include <istream>
#include <memory>
#include <string>

#include "companion/console/ConsoleCall.h"
#include "companion/console/ConsoleClock.h"
#include "companion/console/ConsoleManager.h"
#include "companion/console/ConsoleOperations.h"
#include "companion/console/ConsoleWriter.h"
#include "platform/file_provider/NSFileProviderManager.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/log/Log.h"
#include "platform/tasks/Queue.h"

namespace kestrune {

class Console {
 public:
  using ExtensionMaker = std::function<std::shared_ptr<platform::NSFileProviderReplicatedExtension>(
      platform::NSFileProviderDomainPtr, std::shared_ptr<const platform::Clock>)>;

  struct Settings {
    std::string domainIdentifier = "main";
    bool showsPrivateArguments = false;
  };

  struct Surroundings {
    ConsoleWriter::Output output;
    /// Makes the extension of a domain; the clock is the one that calls can move.
    ExtensionMaker makeExtension;
    /// Returns when all that the extension has recorded about its work is written.
    std::function<void()> drainStatus;
  };

  Console(const Settings& settings, const Surroundings& surroundings);
  /// REQUIRES: every call has ended, as `run` sees to.
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  /// Makes the calls of `input` and returns at its end, when every call has ended.
  void run(std::istream& input);

 private:
  void handle(const std::string& line);

  const std::shared_ptr<ConsoleWriter> writer_;
  const std::shared_ptr<ConsoleManager> manager_;
  const std::shared_ptr<ConsoleClock> clock_;
  std::shared_ptr<platform::LogSink> previousSink_;
  OpenCalls openCalls_;
  platform::SerialQueue settling_;
  CallSurroundings callSurroundings_;
  std::unique_ptr<ConsoleOperations> operations_;
};

}  // namespace kestrune
