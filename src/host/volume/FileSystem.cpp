#include "host/volume/FileSystem.h"

#include <cerrno>
#include <utility>

#include "host/volume/OpenVolumeFile.h"

namespace kestrune::host {

namespace {

using platform::NSErrorPtr;
using platform::NSPOSIXError;

constexpr std::uint64_t kCookieOfSelf = 1;
constexpr std::uint64_t kCookieOfParent = 2;

NSErrorPtr errorOf(int number, const char* what) { return NSPOSIXError(number, what).share(); }

// Items are read in the order of their numbers, which begin at 2 below the root.
std::uint64_t cookieOf(const Item& item) { return item.id + 1; }

}  // namespace

FileSystem::FileSystem(Volume::Services services, FileSystemOptions options)
    : options_(std::move(options)),
      volume_(std::make_shared<Volume>(std::move(services))),
      lister_(std::make_shared<FolderLister>(volume_)),
      refresher_(std::make_shared<Refresher>(volume_, lister_)),
      calls_(std::make_shared<ExtensionCalls>(volume_->services().extension)) {
  // Weak: the volume holds the objects and the listener, and these parts the volume.
  const std::weak_ptr<Refresher> refresher = refresher_;
  auto fetching = [refresher](ItemId item, int step) {
    if (auto live = refresher.lock()) live->fetching(item, step);
  };
  const auto sender = std::make_shared<std::weak_ptr<Sender>>();
  const auto keeper = std::make_shared<std::weak_ptr<Keeper>>();
  auto reached = [sender, keeper, activity = activity_](const NSErrorPtr& error) {
    activity->reached(error);
    if (auto live = sender->lock()) live->reached(error);
    if (auto live = keeper->lock()) live->reached(error);
  };
  Contents::Listener listener;
  listener.fetching = [fetching, activity = activity_](ItemId item, int step) {
    activity->downloading(step);
    fetching(item, step);
  };
  listener.doubtful = [refresher](ItemId folder) {
    if (auto live = refresher.lock()) live->enumerateAnew(folder);
  };
  listener.reached = reached;
  const auto spaceMaker = std::make_shared<std::weak_ptr<SpaceMaker>>();
  listener.changed = [spaceMaker] {
    if (auto live = spaceMaker->lock()) live->changed();
  };
  contents_ = std::make_shared<Contents>(volume_, std::move(listener));
  spaceMaker_ = std::make_shared<SpaceMaker>(volume_, contents_, options_.limits);
  *spaceMaker = spaceMaker_;
  auditor_ = std::make_shared<Auditor>(volume_, lister_);
  keeper_ = std::make_shared<Keeper>(volume_, contents_);
  *keeper = keeper_;
  auto described = [keeper](std::vector<platform::NSFileProviderItemPtr> items) {
    if (auto live = keeper->lock()) live->described(std::move(items));
  };
  lister_->setDescribed(described);
  refresher_->setDescribed(described);
  sender_ = std::make_shared<Sender>(volume_, lister_, contents_, calls_);
  *sender = sender_;
  sender_->setSending([fetching, activity = activity_](ItemId item, int step) {
    activity->uploading(step);
    fetching(item, step);
  });
  sender_->setReached(reached);
  sender_->setEnded([volume = std::weak_ptr(volume_)](ItemId item) {
    if (auto live = volume.lock()) live->stateChanged(item);
  });
  activity_->setChanged([watch = volume_->watch()] { watch->somethingChanged(); });
  refresher_->setReached(reached);
  lister_->setReached(reached);
  Volume::Listener changes;
  changes.differ = [sender](const std::vector<ItemId>& items) {
    if (auto live = sender->lock()) live->differ(items);
  };
  changes.doubtful = [refresher](const std::vector<ItemId>& folders) {
    if (auto live = refresher.lock()) {
      for (const ItemId folder : folders) live->enumerateAnew(folder);
    }
  };
  volume_->setListener(std::move(changes));
}

FileSystem::~FileSystem() {
  stop();
  gate_->close();
}

void FileSystem::start() {
  sender_->begin();
  refresher_->signal();
  keeper_->begin();
  spaceMaker_->begin();
  auditor_->begin();
}

void FileSystem::changesSignalled() {
  activity_->signalled(volume_->services().clock->now());
  refresher_->signal();
}

void FileSystem::stop() {
  if (stopped_.exchange(true)) return;
  sender_->stop();
  keeper_->stop();
  spaceMaker_->stop();
  auditor_->stop();
  refresher_->stop();
  lister_->stop();
  calls_->stop();
  volume_->services().extension->invalidate();
}

// ------------------------------------------------------------------------------------------- names

void FileSystem::lookup(NodeId folder, std::string name, Reply<Entry> reply) {
  struct Found {
    ItemId folder = 0;
    Answer<Entry> answer = Entry();
    bool isKnown = true;
  };
  auto find = [volume = volume_, folder, name = std::move(name)] {
    return volume->look([&](Tree& tree, Nodes& nodes) -> Found {
      const Node* node = nodes.find(folder);
      Item* item = node == nullptr || node->detached ? nullptr : tree.find(node->item);
      if (item == nullptr || !item->isLinked())
        return {0, errorOf(ESTALE, "look up in a folder that is gone"), true};
      if (!item->isFolder) return {0, errorOf(ENOTDIR, "look up in a file"), true};
      if (!item->part()->listing.isEnumerated) return {item->id, Entry(), false};
      Item* child = tree.child(*item, name);
      if (child == nullptr) return {item->id, Entry(), true};
      Node& found = nodes.of(*child);
      ++found.kernelReferences;
      return {item->id, Entry{found.id, Volume::attributesOf(*child)}, true};
    });
  };
  Found found = find();
  if (found.folder != 0) refresher_->visited(found.folder);
  if (found.isKnown) {
    reply(std::move(found.answer));
    return;
  }
  auto visited = [find = std::move(find), reply = std::move(reply)](const Answer<Done>& done) {
    if (!done.ok()) return reply(done.error());
    Found again = find();
    if (again.isKnown) return reply(std::move(again.answer));
    reply(errorOf(ESTALE, "look up in a folder that is being moved"));
  };
  lister_->visit(found.folder, std::move(visited));
}

void FileSystem::forget(NodeId node, std::uint64_t count) {
  volume_->look([&](Tree& tree, Nodes& nodes) { nodes.forget(node, count, tree); });
}

Answer<Attributes> FileSystem::attributes(NodeId node) {
  return volume_->look([&](Tree& tree, Nodes& nodes) -> Answer<Attributes> {
    const Node* found = nodes.find(node);
    if (found != nullptr && found->detached && found->openFiles > 0)
      return Volume::attributesOf(*found->detached);
    const Item* item = found == nullptr || found->detached ? nullptr : tree.find(found->item);
    if (item == nullptr) return errorOf(ESTALE, "examine a version that is gone");
    return Volume::attributesOf(*item);
  });
}

void FileSystem::openFolder(NodeId folder, Reply<Done> reply) {
  const ItemId item = volume_->look([&](Tree&, Nodes& nodes) -> ItemId {
    const Node* node = nodes.find(folder);
    return node == nullptr || node->detached ? 0 : node->item;
  });
  refresher_->visited(item);
  lister_->visit(item, std::move(reply));
}

NSErrorPtr FileSystem::readFolder(NodeId folder, std::uint64_t after, bool remember,
                                  FolderSink& sink) {
  return volume_->look([&](Tree& tree, Nodes& nodes) -> NSErrorPtr {
    const Node* node = nodes.find(folder);
    const Item* item = node == nullptr || node->detached ? nullptr : tree.find(node->item);
    if (item == nullptr) return errorOf(ESTALE, "read a folder that is gone");
    if (!item->isFolder) return errorOf(ENOTDIR, "read a file as a folder");
    const Item& above = item->folder != nullptr ? *item->folder : *item;
    if (after < kCookieOfSelf && !sink.add({".", {0, Volume::attributesOf(*item)}, kCookieOfSelf}))
      return nullptr;
    if (after < kCookieOfParent &&
        !sink.add({"..", {0, Volume::attributesOf(above)}, kCookieOfParent}))
      return nullptr;
    const auto& children = item->part()->children;
    for (auto at = after <= kCookieOfParent ? children.begin() : children.after(after - 1);
         at != children.end(); ++at) {
      Item& child = **at;
      const NodeId id = remember ? nodes.of(child).id : 0;
      const bool taken =
          sink.add({child.name(), {id, Volume::attributesOf(child)}, cookieOf(child)});
      if (taken && remember) ++nodes.find(id)->kernelReferences;
      if (!taken) {
        if (remember) nodes.forget(id, 0, tree);
        break;
      }
    }
    return nullptr;
  });
}

void FileSystem::succeed(NodeId node) {
  volume_->change([&](Tree& tree, Nodes& nodes) {
    const Node* found = nodes.find(node);
    Item* item = found == nullptr || found->detached ? nullptr : tree.find(found->item);
    if (item != nullptr && !item->isFolder) tree.succeed(*item);
  });
}

Space FileSystem::space() {
  constexpr std::uint64_t kPlenty = 1ULL << 52U;  // no quota is known
  return {kPlenty, kPlenty};
}

}  // namespace kestrune::host
