// A tree of files in memory, their bytes in local files: what the tests of the mount's front work on. It does everything
// that a mounted folder may be asked, at once or when the test lets it, and counts what is given out and what comes back.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/front/Dispatcher.h"
#include "platform/tasks/Queue.h"
#include "platform/values/Mutex.h"

namespace kestrune::mounttest {

class FrontTree final : public host::Dispatcher {
 public:
  /// `objects`: an empty folder for the bytes; the file of an item is named by its inode number.
  explicit FrontTree(std::filesystem::path objects);

  // What the test decides. Operations are named like the dispatcher's ("write").
  void hold(const std::string& operation);
  void letGo(const std::string& operation);
  /// Whether everything is answered by another thread from now on.
  void answerLater(bool later);
  /// Whether open files are said to be whole from now on.
  void sayWhole(bool whole);
  /// Makes a file of which the kernel is not told.
  void makeUnseen(const std::string& name, const std::string& text);

  // What the test asks.
  int asked(const std::string& operation) const;
  int openFiles() const;
  /// The references that the kernel holds to all nodes but the root.
  std::uint64_t references() const;
  int successors() const;

  void lookup(host::NodeId folder, std::string name, host::Reply<host::Entry> reply) override;
  void forget(host::NodeId node, std::uint64_t count) override;
  host::Answer<host::Attributes> attributes(host::NodeId node) override;
  void openFolder(host::NodeId folder, host::Reply<host::Done> reply) override;
  platform::NSErrorPtr readFolder(host::NodeId folder, std::uint64_t after, bool remember,
                                  host::FolderSink& sink) override;
  void open(host::NodeId node, host::OpenMode mode, host::Caller caller,
            host::Reply<host::OpenFilePtr> reply) override;
  host::LocalFilePtr present(const host::OpenFile& file, std::int64_t offset,
                             std::size_t length) override;
  void read(host::OpenFilePtr file, std::int64_t offset, std::size_t length,
            host::Reply<host::LocalFilePtr> reply) override;
  void release(host::OpenFilePtr file) override;
  host::Space space() override;
  void write(host::OpenFilePtr file, std::int64_t offset, std::span<const std::byte> bytes,
             host::Reply<host::Done> reply) override;
  void flush(host::OpenFilePtr file, host::Reply<host::Done> reply) override;
  void sync(host::OpenFilePtr file, host::Reply<host::Done> reply) override;
  void syncFolder(host::NodeId folder, host::Reply<host::Done> reply) override;
  void reserve(host::OpenFilePtr file, std::int64_t offset, std::int64_t length, bool keepsSize,
               host::Reply<host::Done> reply) override;
  void setAttributes(host::NodeId node, host::OpenFilePtr file,
                     const host::AttributeChanges& changes,
                     host::Reply<host::Attributes> reply) override;
  void create(host::NodeId folder, std::string name, bool isExecutable, host::OpenMode mode,
              host::Caller caller, host::Reply<host::Created> reply) override;
  void makeFolder(host::NodeId folder, std::string name, host::Reply<host::Entry> reply) override;
  void removeFile(host::NodeId folder, std::string name, host::Reply<host::Done> reply) override;
  void removeFolder(host::NodeId folder, std::string name, host::Reply<host::Done> reply) override;
  void rename(host::NodeId folder, std::string name, host::NodeId newFolder, std::string newName,
              host::RenameMode mode, host::Reply<host::Done> reply) override;
  host::Answer<std::string> extendedAttribute(host::NodeId node, const std::string& name) override;
  host::Answer<std::vector<std::string>> extendedAttributeNames(host::NodeId node) override;
  void setExtendedAttribute(host::NodeId node, std::string name, std::optional<std::string> value,
                            bool mustBeNew, bool mustBeThere,
                            host::Reply<host::Done> reply) override;
  void succeed(host::NodeId node) override;

 private:
  struct Item;
  using ItemPtr = std::shared_ptr<Item>;
  struct Node {
    ItemPtr item;
    std::uint64_t references = 0;
  };
  class File;

  // Does `work` now, later on another thread, or when the test lets it.
  void perform(const std::string& operation, std::function<void()> work);
  // The same for work whose result, or the errno that it throws, is the answer.
  template <class T>
  void answer(const std::string& operation, host::Reply<T> reply, std::function<T()> work);

  const ItemPtr& itemOf(host::NodeId node) const REQUIRES_LOCK(mutex_);
  ItemPtr childOf(host::NodeId folder, const std::string& name) const REQUIRES_LOCK(mutex_);
  ItemPtr makeItem(const ItemPtr& folder, const std::string& name, bool isFolder)
      REQUIRES_LOCK(mutex_);
  host::NodeId newNode(const ItemPtr& item) REQUIRES_LOCK(mutex_);
  host::Entry entryOf(const ItemPtr& item) REQUIRES_LOCK(mutex_);
  host::OpenFilePtr openItem(const ItemPtr& item, host::OpenMode mode) REQUIRES_LOCK(mutex_);
  void put(const ItemPtr& folder, const std::string& name, const ItemPtr& item)
      REQUIRES_LOCK(mutex_);
  void take(const ItemPtr& folder, const std::string& name) REQUIRES_LOCK(mutex_);
  void remove(const ItemPtr& folder, const std::string& name, bool isFolder) REQUIRES_LOCK(mutex_);

  const std::filesystem::path objects_;
  mutable platform::Mutex mutex_;
  std::map<std::string, int> asked_ GUARDED_BY(mutex_);
  std::map<std::string, std::vector<std::function<void()>>> held_ GUARDED_BY(mutex_);
  bool later_ GUARDED_BY(mutex_) = false;
  bool whole_ GUARDED_BY(mutex_) = true;
  int openFiles_ GUARDED_BY(mutex_) = 0;
  int successors_ GUARDED_BY(mutex_) = 0;
  std::uint64_t nextCookie_ GUARDED_BY(mutex_) = 3;
  host::InodeNumber nextInode_ GUARDED_BY(mutex_) = 1;
  host::NodeId nextNode_ GUARDED_BY(mutex_) = host::kRootNode;
  std::unordered_map<host::NodeId, Node> nodes_ GUARDED_BY(mutex_);
  platform::SerialQueue queue_{"tree"};  // last: its thread ends before the rest goes
};

}  // namespace kestrune::mounttest
