// The mounted folder as HostControl shows it: finds the items that paths name, has the extension act on them, and tells what
// is here and what is not at the store yet.
//
// To keep contents here, to let them go, and to make links are the extension's actions; whether an item is kept is asked of
// the extension again after each. A folder stands for the files below it that are known or can be listed now.
//
// Threads: every operation may be called from any thread. What is under way keeps the parts that it needs.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/control/HostControl.h"
#include "host/volume/FileSystem.h"
#include "host/volume/Manager.h"

namespace kestrune::host {

class VolumeControl final : public HostControl {
 public:
  /// What is not the volume's own business.
  struct Outside {
    std::function<bool()> usesPassthrough;
    /// Ends that an item is kept here. May do short file work.
    std::function<void(const platform::NSFileProviderItemIdentifier& identifier)> unpin;
    /// What the extension copied last, taken away.
    std::function<std::string()> takeCopied;
    /// As HostControl::restart; null where there is no program to take the place.
    std::function<void(Reply<Done> reply)> restart = nullptr;
    /// What the extension's process is doing; null where it has none of its own. May be called on any thread.
    std::function<ExtensionStatus()> extensionStatus = nullptr;
    /// As HostControl::recentLog; null where nothing is kept. May be called on any thread.
    std::function<std::vector<std::string>()> recentLog = nullptr;
    /// Has the host end; null where it cannot by itself. Returns soon.
    std::function<void()> end = nullptr;
  };
  VolumeControl(const FileSystem& fileSystem, Outside outside);

  void status(Reply<HostStatus> reply) override;
  void condition(Reply<HostCondition> reply) override;
  void pending(std::string path, std::size_t most, Reply<PendingChanges> reply) override;
  void tryNow(std::string path, Reply<Done> reply) override;
  void act(ItemAction action, std::vector<std::string> paths, Reply<Each<Done>> reply) override;
  void links(std::vector<std::string> paths, Reply<Each<std::string>> reply) override;
  void states(std::vector<std::string> paths, Reply<Each<ItemState>> reply) override;
  void reasons(std::vector<std::string> paths, Reply<Each<ItemReasons>> reply) override;
  void recentLog(Reply<std::vector<std::string>> reply) override;
  void end(Reply<Done> reply) override;
  void folderStates(std::string folder, Reply<std::vector<EntryState>> reply) override;
  void watch(std::function<void()> wake) override;
  HostChanges takeChanges() override;
  void restart(Reply<Done> reply) override;
  void allowDeletions(Reply<std::uint64_t> reply) override;
  void keepDeleted(Reply<std::uint64_t> reply) override;

 private:
  class Work;
  void settleHeld(bool believe, const Reply<std::uint64_t>& reply);
  const std::shared_ptr<Work> work_;
};

}  // namespace kestrune::host
