#include "host/FileSystem.h"

#include <cerrno>
#include <utility>

#include "host/basics/ErrorToErrno.h"

namespace kestrune::host {

FileSystem::FileSystem(const LiveTree::Services& services, std::shared_ptr<Replica> replica)
    : extension_(services.extension),
      tree_(std::make_shared<LiveTree>(services)),
      refresher_(std::make_shared<Refresher>(extension_, tree_, services.timers, services.log)) {
  // Weak: the tree holds the contents, and the refresher the tree.
  const std::weak_ptr<LiveTree> tree = tree_;
  const std::weak_ptr<Refresher> refresher = refresher_;
  auto contents = std::make_shared<ContentsServices>();
  contents->extension = extension_;
  contents->replica = std::move(replica);
  contents->timers = services.timers;
  contents->arrived = [tree](NodeId node, std::int64_t sizeBytes, std::function<void()> then) {
    if (auto live = tree.lock()) {
      live->contentsArrived(node, sizeBytes, std::move(then));
    } else {
      then();
    }
  };
  contents->fetching = [refresher](NodeId node, int step) {
    if (auto live = refresher.lock()) live->fetching(node, step);
  };
  contents->failed = [tree, refresher, log = services.log](NodeId node,
                                                           const platform::NSError& error) {
    const auto liveTree = tree.lock();
    const auto liveRefresher = refresher.lock();
    if (!liveTree || !liveRefresher) return;
    log->failure("fetch", "fetch '" + liveTree->path(node) + "'", error.localizedDescription());
    // A file that is listed and not there: its deletion was missed.
    if (errnoFor(error) == ENOENT) {
      if (const NodeId folder = liveTree->folderOf(node)) liveRefresher->enumerateAnew(folder);
    }
  };
  tree_->setContentsFactory(
      [contents](NodeId node, const platform::NSFileProviderItemIdentifier& identifier) {
        return std::make_shared<FileContents>(contents, node, identifier);
      });
  tree_->setListedLate([refresher](NodeId folder) {
    if (auto live = refresher.lock()) live->ask(folder);
  });
}

void FileSystem::lookup(NodeId folder, std::string name, Reply<Entry> reply) {
  tree_->lookup(folder, std::move(name), std::move(reply));
}

void FileSystem::forget(NodeId node, std::uint64_t count) { tree_->forget(node, count); }

Answer<Attributes> FileSystem::attributes(NodeId node) { return tree_->attributes(node); }

void FileSystem::openFolder(NodeId folder, Reply<Done> reply) {
  tree_->visit(folder, std::move(reply));
}

platform::NSErrorPtr FileSystem::readFolder(NodeId folder, std::uint64_t after, bool remember,
                                            FolderSink& sink) {
  return tree_->readFolder(folder, after, remember, sink);
}

void FileSystem::open(NodeId node, OpenMode mode, Caller, Reply<OpenFilePtr> reply) {
  if (mode.writes || mode.truncates) {
    reply(platform::NSPOSIXError(EROFS, "write in a folder that is mounted for reading").share());
  } else {
    reply(tree_->open(node));
  }
}

LocalFilePtr FileSystem::present(const OpenFile& file, std::int64_t, std::size_t) {
  return contentsOf(file).present();
}

void FileSystem::read(OpenFilePtr file, std::int64_t, std::size_t, Reply<LocalFilePtr> reply) {
  contentsOf(*file).read(std::move(reply));
}

void FileSystem::release(OpenFilePtr file) { tree_->release(*file); }

Space FileSystem::space() {
  constexpr std::uint64_t kPlenty = 1ULL << 52U;
  return {kPlenty, kPlenty};
}

void FileSystem::changesSignalled() { refresher_->signal(); }

void FileSystem::stop() {
  if (stopped_.exchange(true)) return;
  refresher_->stop();
  extension_->invalidate();
}

}  // namespace kestrune::host
