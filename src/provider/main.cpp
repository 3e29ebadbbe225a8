// kestrune-fileprovider: the extension as a program of its own, which the host starts and talks to. It is nothing to be started by
// hand.
#include <sys/prctl.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "boundary/ExtensionServer.h"
#include "extension/FileProviderExtension.h"
#include "platform/files/Directories.h"
#include "platform/tasks/MainQueue.h"
#include "platform/values/NSError.h"
#include "provider/CrashNote.h"

namespace {

using namespace kestrune;  // NOLINT(google-build-using-namespace): a main program

// As the host gives them (host/launch/Program.h).
constexpr int kSocket = 3;
constexpr int kReport = 4;

bool isSocket(int descriptor) {
  struct stat status {};
  return ::fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode);
}

std::shared_ptr<platform::NSFileProviderReplicatedExtension> makeExtension(
    platform::NSFileProviderDomainPtr domain, const boundary::RemoteHost& host) {
  platform::NSFileProviderManager::setProvider(
      [manager = host.manager,
       identifier = domain->identifier()](const platform::NSFileProviderDomain& asked) {
        return asked.identifier() == identifier ? manager : nullptr;
      });
  platform::NSPasteboard::setGeneral(host.pasteboard);
  return FileProviderExtension::make(std::move(domain));
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("The extension of a mounted Kestrune folder; kestrune mount starts it.");
  std::filesystem::path temporary;
  app.add_option("--temporary", temporary, "where contents are put that the host takes over")
      ->required();
  CLI11_PARSE(app, argc, argv);
  if (!isSocket(kSocket)) {
    std::fputs("kestrune-fileprovider: there is no host; kestrune mount starts this program.\n",
               stderr);
    return 2;
  }
  // The host's end ends it, also where the host is killed. The token passes through its memory: no core dumps.
  ::prctl(PR_SET_DUMPABLE, 0);
  provider::noteCrashesIn(kReport);
  platform::setTemporaryDirectory(temporary);
  auto& mainQueue = platform::MainQueue::shared();
  mainQueue.open();
  try {
    const boundary::ExtensionServer server(kSocket, &makeExtension, [&] { mainQueue.stop(); });
    mainQueue.serve();
  } catch (const platform::NSError& error) {
    std::fprintf(stderr, "kestrune-fileprovider: %s\n", error.localizedDescription().c_str());
    return 1;
  }
  // Transfers that still run have nobody to answer to.
  std::_Exit(0);
}
