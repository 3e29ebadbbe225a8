#include "companion/control/UnmountCommand.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <memory>

#include "companion/configuration/CommandError.h"
#include "companion/control/MountTable.h"
#include "host/basics/LocalFile.h"
#include "platform/log/Log.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace {

using host::ControlClient;
using host::ControlRequest;
using platform::Json;

constexpr std::chrono::seconds kAnswerPatience{10};
/// Enough to see what it is about; kestrune pending shows all.
constexpr std::size_t kShownChanges = 10;

struct Mount {
  std::string place;
  std::string replica;
  std::unique_ptr<host::Descriptor> process;
  std::uint64_t pendingCount = 0;
  Json pending;
};

std::string inQuotes(const std::string& text) {
  return "'" + platform::escapeForDisplay(text) + "'";
}

Mount askAbout(ControlClient& client) {
  Mount mount;
  const Json about = client.ask(ControlRequest(), nullptr, kAnswerPatience);
  mount.place = host::pathFromJson(about.value("mountPoint", Json("")));
  mount.replica = host::pathFromJson(about.value("replica", Json("")));
  mount.process = std::make_unique<host::Descriptor>(
      static_cast<int>(::syscall(SYS_pidfd_open, about.value("process", 0), 0)));
  ControlRequest request;
  request.op = ControlRequest::Op::pending;
  request.most = kShownChanges;
  mount.pending = client.ask(request, nullptr, kAnswerPatience);
  mount.pendingCount = mount.pending.value("count", std::uint64_t{0});
  return mount;
}

std::string countText(std::uint64_t count) {
  return count == 1 ? "1 change is" : std::to_string(count) + " changes are";
}

void requireSent(const Mount& mount) {
  if (mount.pendingCount == 0) return;
  const std::string place = inQuotes(mount.place);
  throw CommandError(place + " stays mounted, because " + countText(mount.pendingCount) +
                     " not at the store yet:\n" +
                     pendingText(mount.pending, Escaping::forTerminal) +
                     "To wait until all is sent: kestrune sync --wait " + place +
                     "\nTo unmount all the same: kestrune unmount --force " + place +
                     "\nNothing is lost by that: what is not sent stays in " +
                     inQuotes(mount.replica) + " and goes out after the next kestrune mount.");
}

void waitForEnd(const Mount& mount, std::chrono::seconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  pollfd polled = {mount.process->number(), POLLIN, 0};
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    const int ready = ::poll(&polled, 1, left.count() > 0 ? static_cast<int>(left.count()) : 0);
    if (ready > 0) break;
    if (ready == 0) {
      throw CommandError("The host of " + inQuotes(mount.place) +
                         " has been asked to end and has not within " +
                         std::to_string(patience.count()) +
                         " s. It may still; kestrune status tells whether it does.");
    }
  }
  if (mountPointAround(presentMountTable(), mount.place) == mount.place) {
    throw CommandError("The host has ended, but " + inQuotes(mount.place) +
                       " is still mounted. Run: fusermount3 -u -z " + inQuotes(mount.place));
  }
}

void tell(const Mount& mount, const UnmountOptions& options, std::ostream& output) {
  if (options.asJson) {
    output << platform::encodeJson({{"mountPoint", host::pathToJson(mount.place)},
                                    {"pending", mount.pendingCount},
                                    {"replica", host::pathToJson(mount.replica)}})
           << "\n";
    return;
  }
  output << "Unmounted " << inQuotes(mount.place) << ".";
  if (mount.pendingCount > 0) {
    output << " " << countText(mount.pendingCount) << " not at the store; kept in "
           << inQuotes(mount.replica) << " and sent after the next kestrune mount.";
  }
  output << "\n";
}

}  // namespace

void unmountHost(const HostFinder& finder, const UnmountOptions& options, std::ostream& output) {
  Mount mount;
  try {
    const auto client = finder.of(options.path, options.domainIdentifier);
    mount = askAbout(*client);
    if (!options.isForced) requireSent(mount);
    ControlRequest request;
    request.op = ControlRequest::Op::end;
    client->ask(request, nullptr, kAnswerPatience);
  } catch (const host::ControlRefusal& error) {
    throw CommandError("The host cannot be ended: " + platform::escapeForDisplay(error.what()));
  } catch (const platform::NSError& error) {
    // The connection may end with the host, before the answer has come.
    if (!mount.process) {
      throw CommandError(
          "Cannot ask the host: " + error.localizedDescription() +
          ". If it hangs, end the process kestrune mount, or run: fusermount3 -u FOLDER");
    }
  }
  waitForEnd(mount, options.patience);
  tell(mount, options, output);
}

}  // namespace kestrune
