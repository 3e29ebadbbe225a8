// The operations of the mounted folder, typed and free of any kernel's interface: what the front decodes its requests
// into, and what tests call. What each means to programs, what it waits for and what it promises: docs/semantics.md.
//
// Operations with a Reply may have to wait, for the extension or for the local disk; the others never do. A waiting
// operation cannot be taken back: who is no longer interested ignores the reply (the work goes on for others), and gives
// back what it carries (an entry's reference, an open file).
//
// The operations that change something answer EROFS unless they are overridden.
//
// Threads: every operation may be called from any thread; replies come on any thread, possibly before the call returns.
// Fails: with an NSErrorPtr. A node that no longer stands for its item answers ESTALE, so that the kernel looks its name
// up again.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/basics/Answer.h"
#include "host/basics/FileTime.h"
#include "host/basics/LocalFile.h"
#include "host/basics/NodeId.h"

namespace kestrune::host {

struct Attributes {
  InodeNumber inode = 0;
  bool isFolder = false;
  bool isExecutable = false;
  /// False: nobody may write (the extension forbids it, or the whole mount is for reading).
  bool isWritable = false;
  std::int64_t sizeBytes = 0;
  /// What the contents take on the local disk: 0 for a file that is not here.
  std::int64_t storedBytes = 0;
  FileTime accessed;
  FileTime modified;
  FileTime changed;
  /// It has no name any more; somebody has it open still.
  bool isUnlinked = false;
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

/// Who asks: nothing is fetched for programs that only look around (thumbnailers, indexers).
struct Caller {
  pid_t process = 0;
};

struct OpenMode {
  bool reads = true;
  bool writes = false;
  /// What was in it goes.
  bool truncates = false;
};

/// An open file. What it is made of is the dispatcher's business.
struct OpenFile {
  explicit OpenFile(NodeId nodeId) : node(nodeId) {}
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  virtual ~OpenFile() = default;

  const NodeId node;
  /// Its listed size is 0 and its contents are not here. That may not be so in truth, and the kernel asks for no bytes of a
  /// file that it takes for empty, unless it is told to pass every read on.
  bool listedEmpty = false;
  /// The file with all of its bytes, if they are here and nobody has it open for writing: the kernel may read it by itself
  /// for as long as this is open. Null otherwise.
  LocalFilePtr whole;
};
using OpenFilePtr = std::shared_ptr<const OpenFile>;

struct Created {
  Entry entry;
  OpenFilePtr file;
};

/// Which attributes are to change; the others stay.
struct AttributeChanges {
  std::optional<std::int64_t> sizeBytes;
  std::optional<bool> isExecutable;
  std::optional<FileTime> accessed;
  std::optional<FileTime> modified;
};

enum class RenameMode {
  replace,    // what has the new name goes
  noReplace,  // EEXIST if something has the new name
  exchange,   // both change their places
};

struct Space {
  std::uint64_t totalBytes = 0;
  std::uint64_t freeBytes = 0;
};

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

  /// Opens a file; nothing is fetched yet. Each open file is released once.
  virtual void open(NodeId node, OpenMode mode, Caller caller, Reply<OpenFilePtr> reply) = 0;
  /// The bytes from `offset` on, as many of `length` as the file has, if they are here; else null. What is behind the
  /// local file's descriptor may be longer than the file is: `sizeBytes` counts.
  virtual LocalFilePtr present(const OpenFile& file, std::int64_t offset, std::size_t length) = 0;
  /// The same, fetched if need be.
  virtual void read(OpenFilePtr file, std::int64_t offset, std::size_t length,
                    Reply<LocalFilePtr> reply) = 0;
  virtual void release(OpenFilePtr file) = 0;

  /// Large numbers where nothing is known.
  virtual Space space() = 0;

  // What changes something.

  /// `bytes` need not outlive the call. Answers when the bytes can be read by everybody here.
  virtual void write(OpenFilePtr file, std::int64_t offset, std::span<const std::byte> bytes,
                     Reply<Done> reply);
  /// Some program closed the file.
  virtual void flush(OpenFilePtr file, Reply<Done> reply);
  /// Answers when the contents, and the memory of what is to be sent, survive a power cut.
  virtual void sync(OpenFilePtr file, Reply<Done> reply);
  virtual void syncFolder(NodeId folder, Reply<Done> reply);
  /// Makes the file at least `end` bytes long and sees to it that there is room for them.
  virtual void reserve(OpenFilePtr file, std::int64_t offset, std::int64_t length, bool keepsSize,
                       Reply<Done> reply);

  /// `file`: through which open file, if any.
  virtual void setAttributes(NodeId node, OpenFilePtr file, const AttributeChanges& changes,
                             Reply<Attributes> reply);
  /// A new empty file, opened; EEXIST if the name is taken. The entry carries a reference.
  virtual void create(NodeId folder, std::string name, bool isExecutable, OpenMode mode,
                      Caller caller, Reply<Created> reply);
  virtual void makeFolder(NodeId folder, std::string name, Reply<Entry> reply);
  virtual void removeFile(NodeId folder, std::string name, Reply<Done> reply);
  virtual void removeFolder(NodeId folder, std::string name, Reply<Done> reply);
  virtual void rename(NodeId folder, std::string name, NodeId newFolder, std::string newName,
                      RenameMode mode, Reply<Done> reply);

  // Extended attributes; asked only if the mount shows any. An attribute that is not there: ENODATA.
  virtual Answer<std::string> extendedAttribute(NodeId node, const std::string& name);
  virtual Answer<std::vector<std::string>> extendedAttributeNames(NodeId node);
  /// `value`: none removes it.
  virtual void setExtendedAttribute(NodeId node, std::string name, std::optional<std::string> value,
                                    bool mustBeNew, bool mustBeThere, Reply<Done> reply);

  /// `node` is being read by the kernel itself and somebody wants to write: from now on another node stands for its item,
  /// and `open` of this one answers ESTALE.
  virtual void succeed(NodeId node);
};

}  // namespace kestrune::host
