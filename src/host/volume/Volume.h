// The tree of a mounted folder with its lock, and everything that must follow when it changes: rows are committed in the
// order of the changes, the kernel is told, contents that are no item's any more go.
//
// Threads: every operation may be called from any thread. The lock is held for work in memory only; with it are called only
// the kernel cache and the item store, which queue, and the watch, which remembers. Lock order: Volume before FileObject.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/basics/Answer.h"
#include "host/basics/HostLog.h"
#include "host/basics/KernelCache.h"
#include "host/basics/Timers.h"
#include "host/content/ContentDirectory.h"
#include "host/content/EditDescription.h"
#include "host/front/Dispatcher.h"
#include "host/in/Enumeration.h"
#include "host/store/ItemStore.h"
#include "host/tree/Tree.h"
#include "host/volume/EditNotes.h"
#include "host/volume/Nodes.h"
#include "host/volume/StateWatch.h"
#include "platform/values/Mutex.h"

namespace kestrune::host {

class Volume : public std::enable_shared_from_this<Volume> {
 public:
  struct Services {
    ExtensionPtr extension;
    std::shared_ptr<Timers> timers;
    std::shared_ptr<KernelCache> kernel;
    std::shared_ptr<const platform::Clock> clock;
    std::shared_ptr<HostLog> log;
    std::shared_ptr<ContentDirectory> directory;
    std::shared_ptr<ItemStore> store;
    std::string machine;
    /// Changed files whose rows are lost; their contents are in the directory.
    std::vector<LostEdit> lostEdits;
    /// Of a host that takes over from another: items that are open, which are kept also where they are neither here nor
    /// there; contents that are open and no item's any more.
    std::set<ItemId> openItems;
    std::set<ContentNumber> openContents;
  };
  using Survives = ItemStore::Survives;

  /// Loads what the store remembers. Throws StoreError.
  explicit Volume(Services services);

  const Services& services() const { return services_; }

  /// Told, without a lock held, of items that may differ from the store now, and of folders that are in doubt. Set once, before
  /// anything changes.
  struct Listener {
    std::function<void(const std::vector<ItemId>& items)> differ;
    std::function<void(const std::vector<ItemId>& folders)> doubtful;
  };
  void setListener(Listener listener) { listener_ = std::move(listener); }
  /// Told of all changes.
  const std::shared_ptr<StateWatch>& watch() const { return watch_; }
  /// The item's state changed by something that is not the tree's: a change of it could not be sent.
  void stateChanged(ItemId item);

  /// Looks, under the lock.
  template <class Work>
  auto look(Work&& work) {
    platform::MutexLock lock(mutex_);
    return work(tree_, nodes_);
  }

  /// Changes, under the lock; then what follows is done. `work` returns null or why it did nothing.
  using Work = std::function<platform::NSErrorPtr(Tree& tree, Nodes& nodes)>;
  /// `reply` comes when the change is committed; with the error of `work` if there was one.
  void change(const Work& work, Survives survives, const Reply<Done>& reply);
  /// For changes that nobody waits for. What cannot be committed now goes with the next commit of the same item.
  void change(const std::function<void(Tree& tree, Nodes& nodes)>& work);
  /// Answers when everything so far survives `survives`.
  void commitAll(Survives survives, Reply<Done> reply);
  /// Looks if everything so far is committed, whoever waited for that was answered, and contents that were to go are gone; else false. Nothing is committed while
  /// `work` runs, which here may take its time.
  bool lookIfCommitted(const std::function<void(Tree& tree, Nodes& nodes)>& work);

  ContentNumber newContentNumber();

  /// REQUIRES: called with the lock held, inside `look` or `change`.
  static Attributes attributesOf(const Item& item);
  static Attributes attributesOf(const DetachedVersion& version);

  std::string path(ItemId item);
  bool isWithin(ItemId item, ItemId folder);

 private:
  struct Aftermath {
    std::vector<ItemId> differ;
    std::vector<ItemId> doubtful;
    TreeEffects effects;
  };
  Aftermath settle(Survives survives, Reply<Done> reply) REQUIRES_LOCK(mutex_);
  std::function<void()> leavingOf(TreeEffects& effects) const;
  void forgetGone(TreeEffects& effects) REQUIRES_LOCK(mutex_);
  void tellWatch(const TreeEffects& effects) REQUIRES_LOCK(mutex_);
  void commitRows(const TreeEffects& effects, Survives survives, Reply<Done> reply)
      REQUIRES_LOCK(mutex_);
  void finish(const Aftermath& aftermath);
  void load();
  std::vector<ItemId> recoverEdits(std::vector<ItemRow>& edited) const;
  void restoreLostEdits() REQUIRES_LOCK(mutex_);

  const Services services_;
  Listener listener_;
  const std::shared_ptr<StateWatch> watch_ = std::make_shared<StateWatch>();
  EditNotes notes_;

  platform::Mutex mutex_;
  Tree tree_ GUARDED_BY(mutex_);
  Nodes nodes_ GUARDED_BY(mutex_);
  ContentNumber nextContent_ GUARDED_BY(mutex_) = 1;
  ContentNumber reservedContents_ GUARDED_BY(mutex_) = 1;
  ItemId reservedItems_ GUARDED_BY(mutex_) = 0;
  /// Rows that could not be committed. The store's thread may add to them while the volume goes.
  struct Uncommitted {
    platform::Mutex mutex;
    std::set<ItemId> items GUARDED_BY(mutex);
    bool counters GUARDED_BY(mutex) = false;
  };
  const std::shared_ptr<Uncommitted> uncommitted_ = std::make_shared<Uncommitted>();
  /// How many times contents are being taken away or rescued at this moment, which is committed already.
  const std::shared_ptr<std::atomic<int>> leaving_ = std::make_shared<std::atomic<int>>(0);
};

}  // namespace kestrune::host
