// The mounted folder on the bus: the object /com/orvanta/Kestrune1/mount with the interface com.orvanta.Kestrune1.Mount, which
// docs/dbus.md describes.
//
// Every method is put to the host at once and answered when the host answers, however long that takes; the calls of others go on
// meanwhile. Signals tell of folders whose states somebody has asked for on this connection, since nobody shows any others.
//
// Owns: its registration on the bus and the calls that wait. Answers that come after its end go nowhere.
// Threads: all of it on the thread of the bus. The host's answers come through the mailbox.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "desktop/Bus.h"
#include "desktop/HostFollower.h"
#include "desktop/Notifier.h"
#include "host/control/HostControl.h"

namespace kestrune::desktop {

/// What the host knows of itself.
struct MountFacts {
  /// Absolute, without links, as the kernel's table of mounts has it.
  std::string mountPoint;
  std::string domainIdentifier;
  std::string version;
};

class MountObject : public std::enable_shared_from_this<MountObject> {
 public:
  static constexpr std::size_t kMostProblems = 20;

  /// `look` asks for an overview soon; it may be called while this lives.
  MountObject(sd_bus* bus, host::HostControl& control, std::shared_ptr<Mailbox> mailbox,
              const MountFacts& facts, std::function<void()> look);
  ~MountObject() = default;
  MountObject(const MountObject&) = delete;
  MountObject& operator=(const MountObject&) = delete;

  /// Registers it.
  void begin();
  void changed(const host::HostChanges& changes);
  void overview(const host::HostCondition& condition, const host::PendingChanges& pending);

 private:
  struct Handlers;
  using CallId = std::uint64_t;

  /// Runs `work` with the call on the bus's thread, unless it is gone by then.
  std::function<void(std::function<void(sd_bus_message*)>)> answering(sd_bus_message* call);
  void folderStates(sd_bus_message* call, const std::string& folder);
  void act(sd_bus_message* call, host::ItemAction action, std::vector<std::string> paths);
  void links(sd_bus_message* call, std::vector<std::string> paths);

  sd_bus* const bus_;
  host::HostControl& control_;
  const std::shared_ptr<Mailbox> mailbox_;
  const MountFacts& facts_;
  const std::function<void()> look_;
  std::map<CallId, MessagePtr> calls_;
  CallId lastCall_ = 0;
  std::set<std::string> asked_;
  std::uint64_t pendingCount_ = 0;
  std::vector<std::string> problems_;
  std::optional<Notifier> notifier_;
  SlotPtr slot_;  // last: nothing is called once it has gone
};

}  // namespace kestrune::desktop
