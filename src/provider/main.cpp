// kestrune-fileprovider: the extension as a program of its own, which the host starts and talks to. It is nothing to be started by
// hand.
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "boundary/ExtensionServer.h"
#include "extension/FileProviderExtension.h"
#include "platform/files/Directories.h"
#include "platform/tasks/MainQueue.h"
#include "platform/values/Allocator.h"
#include "platform/values/NSError.h"
#include "provider/CrashNote.h"
#include "sandbox/Confinement.h"

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
  sandbox::closeDescriptorsExcept(std::array{kSocket, kReport});
  platform::keepFreedMemory();
  CLI::App app("The extension of a mounted Kestrune folder; kestrune mount starts it.");
  sandbox::SandboxPaths paths;
  paths.program = argv[0];
  bool isInBubblewrap = false;
  app.add_option("--shared", paths.shared, "what the extension and kestrune share")->required();
  app.add_option("--temporary", paths.temporary, "where contents are put that the host takes over")
      ->required();
  app.add_option("--outgoing", paths.outgoing, "where contents are that are to be sent")
      ->required();
  app.add_option("--certificates", paths.certificates, "a store of certificates");
  app.add_flag("--in-bubblewrap", isInBubblewrap, "it was started by bubblewrap");
  CLI11_PARSE(app, argc, argv);
  if (!isSocket(kSocket)) {
    std::fputs("kestrune-fileprovider: there is no host; kestrune mount starts this program.\n",
               stderr);
    return 2;
  }
  try {
    provider::noteCrashesIn(kReport);
    // Before there are other threads, and before the first message.
    auto report = sandbox::confine(sandbox::rulesFor(paths), isInBubblewrap
                                                                 ? sandbox::Surroundings::bubblewrap
                                                                 : sandbox::Surroundings::system);
    platform::setTemporaryDirectory(paths.temporary);
    auto& mainQueue = platform::MainQueue::shared();
    mainQueue.open();
    const boundary::ExtensionServer server(
        kSocket, &makeExtension, [&mainQueue] { mainQueue.stop(); }, std::move(report.notEnforced));
    mainQueue.serve();
  } catch (const platform::NSError& error) {
    std::fprintf(stderr, "kestrune-fileprovider: %s\n", error.localizedDescription().c_str());
    return 1;
  }
  // Transfers that still run have nobody to answer to.
  std::_Exit(0);
}
