#include "host/volume/VolumeControl.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "host/volume/VolumeControlWork.h"

namespace kestrune::host {

VolumeControl::VolumeControl(const FileSystem& fileSystem, Outside outside)
    : work_(std::make_shared<Work>(fileSystem, std::move(outside))) {}

void VolumeControl::status(Reply<HostStatus> reply) { reply(work_->status()); }

void VolumeControl::condition(Reply<HostCondition> reply) { reply(work_->condition()); }

void VolumeControl::pending(std::string path, std::size_t most, Reply<PendingChanges> reply) {
  reply(work_->pending(path, most));
}

void VolumeControl::tryNow(std::string path, Reply<Done> reply) {
  work_->sender->retry(path);
  reply(Done());
}

void VolumeControl::act(ItemAction action, std::vector<std::string> paths,
                        Reply<Each<Done>> reply) {
  platform::spawnDetached("act on items",
                          Work::act(work_, action, std::move(paths), std::move(reply)));
}

void VolumeControl::links(std::vector<std::string> paths, Reply<Each<std::string>> reply) {
  work_->beginLinks(std::move(paths), std::move(reply));
}

void VolumeControl::states(std::vector<std::string> paths, Reply<Each<ItemState>> reply) {
  platform::spawnDetached("tell states", Work::states(work_, std::move(paths), std::move(reply)));
}

void VolumeControl::reasons(std::vector<std::string> paths, Reply<Each<ItemReasons>> reply) {
  platform::spawnDetached("tell reasons", Work::reasons(work_, std::move(paths), std::move(reply)));
}

void VolumeControl::recentLog(Reply<std::vector<std::string>> reply) {
  reply(work_->outside.recentLog ? work_->outside.recentLog() : std::vector<std::string>());
}

void VolumeControl::end(Reply<Done> reply) {
  if (!work_->outside.end) return reply(platform::NSPOSIXError(ENOTSUP, "end this host").share());
  reply(Done());  // first: whoever asked is told so before the end takes the connection
  work_->outside.end();
}

void VolumeControl::folderStates(std::string folder, Reply<std::vector<EntryState>> reply) {
  platform::spawnDetached("tell states of a folder",
                          Work::folderStates(work_, std::move(folder), std::move(reply)));
}

void VolumeControl::watch(std::function<void()> wake) {
  work_->volume->watch()->watch(std::move(wake));
}

HostChanges VolumeControl::takeChanges() {
  const StateWatch::Changes taken = work_->volume->watch()->take();
  HostChanges changes;
  work_->volume->look([&](Tree& tree, Nodes&) {
    const auto add = [&tree](const std::set<ItemId>& items, std::vector<std::string>& paths) {
      for (const ItemId id : items) {
        const Item* item = tree.find(id);
        if (item != nullptr && item->isLinked()) paths.push_back(tree.path(*item));
      }
    };
    add(taken.folders, changes.folders);
    add(taken.conflicts, changes.conflicts);
  });
  return changes;
}

void VolumeControl::restart(Reply<Done> reply) {
  if (work_->outside.restart) return work_->outside.restart(std::move(reply));
  reply(platform::NSPOSIXError(ENOTSUP, "replace this host").share());
}

void VolumeControl::allowDeletions(Reply<std::uint64_t> reply) { settleHeld(true, reply); }

void VolumeControl::keepDeleted(Reply<std::uint64_t> reply) { settleHeld(false, reply); }

void VolumeControl::settleHeld(bool believe, const Reply<std::uint64_t>& reply) {
  std::uint64_t count = 0;
  work_->volume->change([&](Tree& tree, Nodes&) {
    const std::size_t before = tree.heldDeletions().size();
    tree.settleHeldDeletions(believe);
    count = before - std::min(before, tree.heldDeletions().size());
  });
  reply(count);
}

}  // namespace kestrune::host
