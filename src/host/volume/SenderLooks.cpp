// What the store is asked before a change goes out, and after.
#include <utility>

#include "host/volume/AwaitReply.h"
#include "host/volume/Sender.h"

namespace kestrune::host {

using platform::MutexLock;
using platform::Task;

Task<Answer<Done>> Sender::listFolder(ItemId folder, bool onlyIfOld) {
  auto start = [this, folder, onlyIfOld](Reply<Done> reply) {
    lister_->listUnlessFresh(folder, onlyIfOld ? Clock(kFresh) : Clock(0), std::move(reply));
  };
  co_return co_await awaitReply<Done>(start);
}

// A failure is the lister's to tell.
Task<void> Sender::relist(ItemId folder) { static_cast<void>(co_await listFolder(folder, false)); }

// Whether other changes of the folder ask for their items at this moment: then one listing serves all.
bool Sender::isCrowded(ItemId folder) {
  MutexLock lock(mutex_);
  const std::vector<Change> underWay = underWay_;
  return volume_->look([&](Tree& tree, Nodes&) {
    std::size_t count = 0;
    for (const Change& change : underWay) {
      const Item* item = tree.find(change.id);
      const bool asks = change.kind == Change::Kind::send || change.kind == Change::Kind::remove;
      if (asks && item != nullptr && item->there && item->there->folder == folder) ++count;
    }
    return count > 1;
  });
}

// Asks for the item itself, or with others for their folder.
Task<Answer<Done>> Sender::lookAt(ItemId id) {
  struct Question {
    platform::NSFileProviderItemIdentifier identifier;
    ItemId folder = 0;
    std::uint64_t asOf = 0;
  };
  const auto question = volume_->look([id](Tree& tree, Nodes&) -> std::optional<Question> {
    const Item* item = tree.find(id);
    if (item == nullptr || !item->there) return std::nullopt;
    return Question{item->there->identifier, item->there->folder, tree.moment()};
  });
  if (!question) co_return Done();
  if (isCrowded(question->folder)) co_return co_await listFolder(question->folder, false);
  const auto answer = co_await calls_->item(question->identifier);
  if (!answer.ok()) co_return answer.error();
  bool isDoubtful = false;
  volume_->change([&](Tree& tree, Nodes&) {
    Item* item = tree.find(id);
    if (item == nullptr || !item->there || item->there->identifier != question->identifier) return;
    // What was sent and never seen since is not believed to be gone on one word.
    isDoubtful = !answer.value() && item->there->isProvisional;
    if (!isDoubtful) tree.applyItem(*item, answer.value(), question->asOf);
  });
  if (isDoubtful) co_return co_await listFolder(question->folder, false);
  co_return Done();
}

// A folder may only go with what is known of it, at this moment: all that is in it goes without another question.
Task<Answer<Done>> Sender::lookBelow(ItemId folder) {
  std::vector<ItemId> pending = {folder};
  while (!pending.empty()) {
    const ItemId at = pending.back();
    pending.pop_back();
    const auto listed = co_await listFolder(at, false);
    if (!listed.ok()) co_return listed.error();
    volume_->look([&](Tree& tree, Nodes&) {
      tree.forEachChildThere(at, [&](const Item& child) {
        if (child.isFolder) pending.push_back(child.id);
      });
    });
  }
  co_return Done();
}

// Where an earlier change may have put it, that is found out first.
Task<Answer<Done>> Sender::findOut(ItemId id) {
  struct Wait {
    ItemId folder;
    std::optional<ItemId> oldFolder;
  };
  const auto wait = volume_->look([id](Tree& tree, Nodes&) -> std::optional<Wait> {
    const Item* item = tree.find(id);
    if (item == nullptr || !item->awaited()) return std::nullopt;
    Wait found{item->awaited()->folder, std::nullopt};
    if (item->there && item->there->folder != found.folder) found.oldFolder = item->there->folder;
    return found;
  });
  if (!wait) co_return Done();
  const auto listed = co_await listFolder(wait->folder, false);
  if (!listed.ok() || !wait->oldFolder) co_return listed;
  co_return co_await listFolder(*wait->oldFolder, false);
}

// The store's own version of what was just sent becomes known by asking: once for one file, once for a folder when several of its
// files were sent together.
void Sender::verifyLater(ItemId id) {
  const ItemId folder = volume_->look([id](Tree& tree, Nodes&) -> ItemId {
    const Item* item = tree.find(id);
    return item != nullptr && item->there ? item->there->folder : 0;
  });
  if (folder == 0) return;
  {
    MutexLock lock(mutex_);
    unverified_[folder].insert(id);
    if (stopped_ || !verifying_.insert(folder).second) return;
  }
  volume_->services().timers->after(kVerify, [weak = weak_from_this(), folder] {
    if (auto self = weak.lock()) platform::spawnDetached("verify", self->verify(self, folder));
  });
}

Task<void> Sender::verify(std::shared_ptr<Sender> self, ItemId folder) {
  std::set<ItemId> items;
  bool isBusy = false;
  {
    MutexLock lock(self->mutex_);
    // More of the same folder is on its way: one question will serve all.
    for (const Change& change : self->underWay_)
      isBusy = isBusy || (change.kind == Change::Kind::create && change.to.folder == folder);
    if (!isBusy) {
      items = std::move(self->unverified_.extract(folder).mapped());
      self->verifying_.erase(folder);
    }
  }
  if (isBusy) {
    volume_->services().timers->after(kVerify, [weak = weak_from_this(), folder] {
      if (auto sender = weak.lock())
        platform::spawnDetached("verify", sender->verify(sender, folder));
    });
    co_return;
  }
  // A failure leaves them unverified; the folder's next listing tells.
  if (items.size() > 1) {
    co_await relist(folder);
  } else {
    for (const ItemId item : items) static_cast<void>(co_await lookAt(item));
  }
}

}  // namespace kestrune::host
