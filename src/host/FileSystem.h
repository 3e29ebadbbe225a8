// A whole mounted folder without a kernel: an extension, its tree, its contents and its changes, behind the Dispatcher's
// operations.
//
// Call order: constructor · (operations | changesSignalled)* · stop. After `stop` waiting operations still answer when the
// extension does, but nothing new is asked of it.
//
// Owns: everything it is made of; the extension is invalidated by `stop`. What the extension still runs keeps the parts
// that it needs alive, so the object may be destroyed at any time.
// Threads: every operation may be called from any thread.
#pragma once

#include <memory>

#include "host/FileContents.h"
#include "host/LiveTree.h"
#include "host/Refresher.h"
#include "host/front/Dispatcher.h"

namespace kestrune::host {

class FileSystem final : public Dispatcher {
 public:
  FileSystem(const LiveTree::Services& services, std::shared_ptr<Replica> replica);
  ~FileSystem() override { stop(); }

  void lookup(NodeId folder, std::string name, Reply<Entry> reply) override;
  void forget(NodeId node, std::uint64_t count) override;
  Answer<Attributes> attributes(NodeId node) override;
  void openFolder(NodeId folder, Reply<Done> reply) override;
  platform::NSErrorPtr readFolder(NodeId folder, std::uint64_t after, bool remember,
                                  FolderSink& sink) override;
  void open(NodeId node, OpenMode mode, Caller caller, Reply<OpenFilePtr> reply) override;
  LocalFilePtr present(const OpenFile& file, std::int64_t offset, std::size_t length) override;
  void read(OpenFilePtr file, std::int64_t offset, std::size_t length,
            Reply<LocalFilePtr> reply) override;
  void release(OpenFilePtr file) override;
  Space space() override;

  /// The remote side may have changed.
  void changesSignalled();
  /// May be called more than once.
  void stop();

 private:
  const ExtensionPtr extension_;
  const std::shared_ptr<LiveTree> tree_;
  const std::shared_ptr<Refresher> refresher_;
  std::atomic<bool> stopped_ = false;
};

}  // namespace kestrune::host
