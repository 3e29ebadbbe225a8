#include "companion/ConsoleCommand.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string_view>
#include <thread>
#include <utility>

#include "companion/console/Console.h"
#include "extension/FileProviderExtension.h"
#include "platform/tasks/MainQueue.h"
#include "platform/values/NSError.h"
#include "status/SyncStatusStore.h"

namespace kestrune {

namespace {

// Called on whatever thread has something to print, while the console's own may wait for its input:
// a failure can only end the process from here.
void writeToStandardOutput(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) {
      pollfd output{STDOUT_FILENO, POLLOUT, 0};
      ::poll(&output, 1, -1);
    } else if (errno == EPIPE) {
      std::_Exit(EXIT_SUCCESS);
    } else if (errno != EINTR) {
      std::fprintf(stderr, "kestrune: cannot write to standard output: %s\n",
                   platform::errnoText(errno).c_str());
      std::_Exit(EXIT_FAILURE);
    }
  }
}

Console::Surroundings realSurroundings() {
  Console::Surroundings surroundings;
  surroundings.output = writeToStandardOutput;
  surroundings.makeExtension = [](platform::NSFileProviderDomainPtr domain,
                                  std::shared_ptr<const platform::Clock> clock) {
    FileProviderExtension::Services services;
    services.clock = std::move(clock);
    return FileProviderExtension::make(std::move(domain), std::move(services));
  };
  surroundings.drainStatus = [] { SyncStatusStore::shared().drain(); };
  return surroundings;
}

}  // namespace

void runConsole(const ConsoleOptions& options) {
  std::signal(SIGPIPE, SIG_IGN);  // a closed output shows as EPIPE
  std::ios::sync_with_stdio(false);
  Console::Settings settings;
  settings.domainIdentifier = options.domainIdentifier;
  settings.showsPrivateArguments = options.showsPrivateArguments;
  // Calls are made on a thread of their own, because the main thread has work of its own to do.
  auto& mainQueue = platform::MainQueue::shared();
  mainQueue.open();
  std::exception_ptr failure;
  std::thread caller([&settings, &mainQueue, &failure] {
    try {
      Console console(settings, realSurroundings());
      console.run(std::cin);
    } catch (...) {
      failure = std::current_exception();
    }
    mainQueue.stop();
  });
  mainQueue.serve();
  caller.join();
  if (failure) std::rethrow_exception(failure);
}

}  // namespace kestrune
