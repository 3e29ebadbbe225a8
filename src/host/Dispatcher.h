// The operations of the mounted folder, typed and free of any kernel's interface: what a file system front decodes its
// requests into, and what tests call.
//
// Operations with a Reply may have to wait for the extension; the others never do. A waiting operation cannot be taken
// back: who is no longer interested ignores the reply (the work goes on for others), and gives back what it carries (an
// entry's reference, an open file).
//
// Threads: every operation may be called from any thread; replies come on any thread, possibly before the call returns.
// Fails: with an NSErrorPtr. A node that has lost its name answers ESTALE, so that the kernel looks its name up again.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "host/Answer.h"
#include "host/KernelCache.h"
#include "host/Replica.h"
#include "platform/values/Date.h"

namespace kestrune::host {

class FileContents;

struct Attributes {
  InodeNumber inode = 0;
  bool isFolder = false;
  std::int64_t sizeBytes = 0;
  /// What the contents take on the local disk: 0 for a file that is not here.
  std::int64_t storedBytes = 0;
  platform::Date modified{};
};

struct Entry {
  /// 0: there is no such name.
  NodeId node = 0;
  Attributes attributes;
};

/// One name in a folder, as it is read.
struct FolderEntry {
  std::string_view name;
  Entry entry;
  /// Reading goes on after this one.
  std::uint64_t cookie = 0;
};

/// Takes the names of a folder one by one.
class FolderSink {
 public:
  virtual ~FolderSink() = default;
  /// False if there is no room: this one was not taken, and reading stops. Must be quick: a lock is held.
  virtual bool add(const FolderEntry& entry) = 0;
};

struct OpenFile {
  NodeId node = 0;
  std::shared_ptr<FileContents> contents;
  /// Its listed size is 0 and its contents are not here. That may not be so in truth, and the kernel asks for no bytes of a
  /// file that it takes for empty, unless it is told to pass every read on.
  bool listedEmpty = false;
};
using OpenFilePtr = std::shared_ptr<const OpenFile>;

class Dispatcher {
 public:
  virtual ~Dispatcher() = default;

  /// Finds a name. An entry with a node carries one reference, which `forget` gives back.
  virtual void lookup(NodeId folder, std::string name, Reply<Entry> reply) = 0;
  virtual void forget(NodeId node, std::uint64_t count) = 0;
  virtual Answer<Attributes> attributes(NodeId node) = 0;

  /// Answers when the folder's names can be read.
  virtual void openFolder(NodeId folder, Reply<Done> reply) = 0;
  /// Hands the names after `after` to `sink`, "." and ".." first (0: from the beginning). Names that come or go between
  /// two calls neither repeat nor skip others. With `remember`, each name taken but "." and ".." carries a reference.
  virtual platform::NSErrorPtr readFolder(NodeId folder, std::uint64_t after, bool remember,
                                          FolderSink& sink) = 0;

  /// Opens a file for reading; nothing is fetched yet. Each open file is released once.
  virtual Answer<OpenFilePtr> open(NodeId node) = 0;
  /// The bytes of an open file if they are here, else null.
  virtual LocalFilePtr present(const OpenFile& file) = 0;
  /// The bytes of an open file, fetched if need be. They are of one version and never change.
  virtual void read(OpenFilePtr file, Reply<LocalFilePtr> reply) = 0;
  virtual void release(OpenFilePtr file) = 0;
};

}  // namespace kestrune::host
