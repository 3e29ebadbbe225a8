#include "companion/ScratchDirectory.h"

#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>
#include <system_error>
#include <thread>

#include "companion/configuration/CommandError.h"
#include "platform/files/Directories.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace {

void removeQuietly(const std::filesystem::path& directory) {
  std::error_code ignored;  // whatever is left lies in the system's temporary directory
  std::filesystem::remove_all(directory, ignored);
}

}  // namespace

ScratchDirectory::ScratchDirectory() {
  std::string name = (platform::temporaryDirectory() / "kestrune-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr) {
    throw CommandError("Cannot make a temporary directory '" + name +
                       "': " + platform::errnoText(errno) + ". Set TMPDIR to one that exists.");
  }
  directory_ = name;
  platform::setTemporaryDirectory(directory_);

  sigset_t ending;
  sigemptyset(&ending);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&ending, signal);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);
  // Waits until the process ends; there is nothing to join it for.
  std::thread([ending, directory = directory_] {
    int signal = 0;
    sigwait(&ending, &signal);
    removeQuietly(directory);
    std::_Exit(128 + signal);
  }).detach();
}

ScratchDirectory::~ScratchDirectory() { removeQuietly(directory_); }

}  // namespace kestrune
