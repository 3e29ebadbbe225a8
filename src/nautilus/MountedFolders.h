// What the file manager knows of mounted folders: where they are, and of the folders that it shows which state each entry has.
//
// A folder is asked for once, when the first of its entries is shown, and again when its host says that something changed. Nothing
// here waits: answers come through the main loop. Files outside of mounted folders cost one comparison for each mount.
//
// Threads: the main thread alone.
// Fails: a host that does not answer has folders without states.
#pragma once

#include <gio/gio.h>

#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrune::nautilus {

struct EntryState {
  /// As docs/dbus.md has them.
  std::string word;
  bool isKept = false;
  bool operator==(const EntryState&) const = default;
};
using FolderStates = std::map<std::string, EntryState>;

/// A file of a mounted folder, as its host calls it.
struct Place {
  /// The host's name on the bus.
  std::string host;
  /// From the mount point down: "/" or "/a/b".
  std::string path;
};

class MountedFolders {
 public:
  /// Told of files whose state is another one now, by their absolute paths.
  explicit MountedFolders(std::function<void(const std::string& path)> changed);
  ~MountedFolders();
  MountedFolders(const MountedFolders&) = delete;
  MountedFolders& operator=(const MountedFolders&) = delete;

  /// Whose file it is; nothing if it is in no mounted folder.
  std::optional<Place> find(const std::string& path) const;

  using Token = std::size_t;
  /// `reply` gets the states of all entries of the folder that `path` is in, null where nobody knows them: at once, then 0 is
  /// returned, or later.
  Token ask(const std::string& path, std::function<void(const EntryState* state)> reply);
  void forget(Token token);
  /// What is known of it without asking.
  const EntryState* known(const std::string& path) const;

  /// Calls a method of the host of `places`, which is one, with their paths. `reply` is told the answer or the error.
  using Reply = std::function<void(GVariant* answer, const GError* error)>;
  void call(const char* method, const std::vector<Place>& places, const char* answerType,
            Reply reply);

 private:
  struct Folder {
    std::optional<FolderStates> states;
    bool isAsked = false;
    /// It changed since it was asked for.
    bool isStale = false;
  };
  struct Mount {
    std::string mountPoint;
    std::map<std::string, Folder> folders;
  };
  struct Waiting {
    Token token;
    std::string path;
    std::function<void(const EntryState* state)> reply;
  };
  struct Callbacks;

  void connected(GDBusConnection* bus);
  void askWhere(const std::string& host);
  void mountIs(const std::string& host, std::string mountPoint);
  void hostEnded(const std::string& host);
  void askFolder(const std::string& host, const std::string& folder);
  void folderIs(const std::string& host, const std::string& folder, FolderStates states);
  void answerWaiting();

  const std::function<void(const std::string& path)> changed_;
  GCancellable* const ended_;
  GDBusConnection* bus_ = nullptr;
  /// Questions for the mounts themselves; the first is for the bus.
  int unanswered_ = 1;
  std::map<std::string, Mount> mounts_;
  std::list<Waiting> waiting_;
  Token lastToken_ = 0;
  std::vector<guint> subscriptions_;
};

}  // namespace kestrune::nautilus
