#include "host/HostReplacement.h"

#include <unistd.h>

#include <cerrno>
#include <future>
#include <thread>
#include <utility>

#include "host/volume/VolumeHandover.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

using platform::NSErrorPtr;
using platform::NSPOSIXError;

constexpr std::chrono::microseconds kPause{200};

NSErrorPtr busy(const char* why) {
  return NSPOSIXError(EBUSY, std::string("replace the host while ") + why).share();
}

std::vector<OpenFilePtr> openFilesOf(FuseFront& front) {
  std::vector<OpenFilePtr> files;
  for (auto& [number, handle] : front.handles().all()) files.push_back(std::move(handle.file));
  return files;
}

}  // namespace

HostReplacement::HostReplacement(Parts parts, ProgramStart program,
                                 std::filesystem::path mountPoint, std::uint64_t restarts)
    : parts_(parts),
      program_(std::move(program)),
      mountPoint_(std::move(mountPoint)),
      restarts_(restarts) {}

// What can be known before anybody has to wait.
NSErrorPtr HostReplacement::whyNot() const {
  if (!program_.isKnown()) return NSPOSIXError(ENOENT, "find this host's program").share();
  if (::access(program_.file.c_str(), X_OK) != 0)
    return NSPOSIXError(errno, "execute '" + program_.file.string() + "'").share();
  return nullptr;
}

NSErrorPtr HostReplacement::run() {
  if (auto error = whyNot()) return error;
  const auto begun = Clock::now();
  const auto deadline = begun + kPatience;
  // First, while requests are answered: what the kernel is being told may wait for one of them, and a thread that waits in the kernel
  // cannot be ended by the execution.
  if (!parts_.kernel.hold(kPatience)) {
    parts_.kernel.goOn();
    return busy("the kernel waits for an answer of the store");
  }
  if (!parts_.session.pause()) {
    parts_.kernel.goOn();
    return NSPOSIXError(ENOTCONN, "replace the host of a folder that was unmounted").share();
  }
  Handover handover;
  handover.begun = std::chrono::nanoseconds(begun.time_since_epoch()).count();
  NSErrorPtr error;
  for (;;) {
    error = settle(deadline);
    if (error || execute(handover, error)) break;
    if (Clock::now() > deadline - kCommitPatience) {
      error = busy("a change that a program made waits for the store or the disk");
      break;
    }
    std::this_thread::sleep_for(kPause);
  }
  parts_.session.process(handover.requests);
  parts_.session.start();
  parts_.kernel.goOn();
  return error;
}

// Everything is brought to where the successor finds it.
NSErrorPtr HostReplacement::settle(Clock::time_point deadline) {
  settleOpenFiles(parts_.fileSystem, openFilesOf(parts_.front));
  const auto committed = std::make_shared<std::promise<NSErrorPtr>>();
  auto answer = committed->get_future();
  parts_.fileSystem.volume()->commitAll(Volume::Survives::processEnd,
                                        [committed](const Answer<Done>& done) {
                                          committed->set_value(done.ok() ? nullptr : done.error());
                                        });
  if (answer.wait_until(deadline) != std::future_status::ready) return busy("the database is busy");
  return answer.get();
}

// False: something is still under way, and nothing was done.
bool HostReplacement::execute(Handover& handover, NSErrorPtr& error) {
  bool isTried = false;
  const auto work = [&](Tree& tree, Nodes& nodes) {
    std::vector<OpenFilePtr> files;
    if (!parts_.front.handOver(handover, files)) return;
    isTried = true;
    handOverVolume(files, tree, nodes, handover);
    handover.head.mountPoint = mountPoint_;
    handover.replicaLock = parts_.directory.lockDescriptor();
    handover.restarts = restarts_ + 1;
    handover.updates = parts_.kernel.untold();
    error = executeWith(program_, handover);
    parts_.front.takeBack();
  };
  return parts_.fileSystem.volume()->lookIfCommitted(work) && isTried;
}

}  // namespace kestrune::host
