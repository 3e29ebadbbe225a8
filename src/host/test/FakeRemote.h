// A remote store in memory and an extension for it, with verbs for what happens there. Tests of the host use it in their
// own process, and mount it in another.
//
// Identifiers are opaque ("item-7"), so that a host that takes them for paths fails; or, if the test wants it, paths, which
// change when a folder above does. An upload is answered with a version of its own, and the store makes another of it. Answers come from the shared
// executor, as they do in life; a test may hold those of one folder or file back and let them go one by one, and every
// call is counted.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/values/Date.h"
#include "platform/values/Mutex.h"

namespace kestrune::host::test {

/// One file or folder as it is listed. Everything may be nonsense.
struct RemoteItem {
  std::string identifier;
  std::string name;
  bool isFolder = false;
  std::string contents;
  std::optional<std::int64_t> listedSize;  // unless that of the contents
  platform::Date modified = platform::Date(std::chrono::seconds(1'700'000'000));
  std::string version = "1";
  platform::NSFileProviderContentPolicy policy = platform::NSFileProviderContentPolicy::inherited;
};

/// What an extension is asked.
enum class Ask { items, changes, contents, item, create, modify, remove };

class FakeRemote : public std::enable_shared_from_this<FakeRemote> {
 public:
  FakeRemote();

  // What there is. Paths are of names ("/docs/a.txt"); the root is "/". Nothing is announced until `announce`.
  std::string putFolder(const std::string& path);
  std::string putFile(const std::string& path, std::string contents);
  /// As `putFile`, with a size in the listing that is not that of the contents.
  void putFileListedAs(const std::string& path, std::string contents, std::int64_t listedSize);
  /// A new version of a file.
  void overwrite(const std::string& path, std::string contents);
  void remove(const std::string& path);
  /// The same item under another name, maybe in another folder.
  void rename(const std::string& from, const std::string& to);
  /// An item as it stands, whatever its name; its identifier is made up if it has none.
  void putItem(const std::string& folder, RemoteItem item);
  /// Lists a file whose contents turn out to be gone.
  void loseContents(const std::string& path);
  /// Before anything is put.
  void usePathsAsIdentifiers();

  // As others do it at one moment, whatever the host does meanwhile; each says whether it was possible.
  bool tryPut(const std::string& path, const std::optional<std::string>& contents);
  /// `gone`: the contents that went.
  bool tryOverwrite(const std::string& path, std::string contents, std::string& gone);
  bool tryRemove(const std::string& path, std::vector<std::string>& gone);
  bool tryRename(const std::string& from, const std::string& to);

  // What became of it.
  /// Every path with the contents of files.
  std::map<std::string, std::optional<std::string>> tree();
  /// Of a file that is or was here; none for versions that never were. No two files have one.
  std::optional<std::string> contentsOfVersion(const std::string& version) const;
  /// The same, and all that its identifier stood for since: what a fetch may bring.
  std::vector<std::string> contentsSince(const std::string& version) const;
  std::optional<std::string> contents(const std::string& path);
  /// Empty if there is nothing.
  std::string identifierOf(const std::string& path);
  /// Sorted.
  std::vector<std::string> names(const std::string& folder = "/");
  /// The paths of the files whose contents came from the extension, in their order.
  std::vector<std::string> uploads() const;

  /// Moves the sync anchor; who watches for it is told by writing `signalFile`.
  void announce();
  void setSignalFile(std::filesystem::path file);

  // How it answers.
  /// What becomes of one question: `late` is what was so when it was asked, told when it is released; so do changes
  /// happen at once then. With `lost` they happen, and fail all the same.
  struct Treatment {
    enum class Kind { fair, refused, lost, held, late };
    Kind kind = Kind::fair;
    platform::NSErrorPtr error;
  };
  /// Decides about every question from now on, on any thread; null: all are treated fairly.
  using Weather = std::function<Treatment(Ask ask)>;
  void setWeather(Weather weather);
  /// Lets go what the weather holds back; with an error nothing of it happens any more.
  void releaseAll(platform::NSErrorPtr error = nullptr);
  std::size_t countHeld() const;
  /// Questions that are not answered.
  std::size_t countUnderWay() const;
  /// Every change moves the sync anchor, not only `announce`.
  void moveAnchorWithEveryChange();
  /// From now on answers about `path` wait until they are released, or fail with `error`.
  void hold(Ask ask, const std::string& path);
  void release(Ask ask, const std::string& path, platform::NSErrorPtr error = nullptr);
  /// Answers about `path` come at once again; those that wait are released.
  void stopHolding(Ask ask, const std::string& path);
  /// Every answer of this kind about `path` fails until told otherwise (null).
  void failWith(Ask ask, const std::string& path, platform::NSErrorPtr error);
  /// A change of `path` happens, and its answer is `error` all the same, until told otherwise (null). Changes are asked of
  /// the path before them.
  void loseAnswers(Ask ask, const std::string& path, platform::NSErrorPtr error);
  /// Everything fails with serverUnreachable.
  void setUnreachable(bool unreachable);
  /// Change enumerations of all folders answer "no changes" with the old anchor: how some extensions fail.
  void failChangesSilently(bool fail);
  /// Change enumerations report every item as updated, and deletions of items that never were.
  void exaggerateChanges(bool exaggerate);
  /// How many items a page of an enumeration holds; 0: all.
  void setPageSize(std::size_t items);
  /// Changes come in pieces of so many, with more to come; 0: all.
  void setChangesAtOnce(std::size_t changes);
  void expireAnchors(bool expire);
  /// Whether the contents of an item are to be kept here.
  void setPolicy(const std::string& path, platform::NSFileProviderContentPolicy policy);

  // What was asked.
  int asked(Ask ask, const std::string& path) const;
  /// Waits until it was asked `count` times; false when the deadline passed first.
  bool waitUntilAsked(Ask ask, const std::string& path, int count);
  bool invalidated() const;
  /// How many returned progress objects were cancelled.
  int cancelled() const;

  std::shared_ptr<platform::NSFileProviderReplicatedExtension> makeExtension(
      bool offersParts = false);

 private:
  friend class FakeEnumerator;
  friend class FakeExtension;

  struct Held {
    Ask ask;
    std::string path;
    std::function<void(platform::NSErrorPtr)> answer;
  };
  using Key = std::pair<Ask, std::string>;
  struct Folder {
    std::vector<RemoteItem> items;  // in the order of listing
  };

  // Counts a question and answers it on the executor, at once or when it is released.
  // `take`: finds out, or does, what is to be answered.
  void answerLater(Ask ask, const std::string& identifier,
                   std::function<void(platform::NSErrorPtr)> answer,
                   std::function<void()> take = nullptr);
  void answerAt(Ask ask, const std::string& path, std::function<void(platform::NSErrorPtr)> answer,
                std::function<void()> take = nullptr);
  void answerUnder(const Treatment& treatment, const Held& question,
                   const std::function<void()>& take);
  // As `answerLater`; without an error the change is made first.
  void changeLater(Ask ask, const std::string& path,
                   const std::function<platform::NSFileProviderItemPtr()>& change,
                   const std::function<void(platform::NSFileProviderItemPtr item,
                                            platform::NSErrorPtr error)>& answer);
  std::string pathIn(const std::string& identifier, const std::string& name = {}) const;
  std::optional<RemoteItem> copyOf(const std::string& identifier) const;
  platform::NSFileProviderItemPtr described(const std::string& identifier) const;
  // Throw NSFileProviderError.
  platform::NSFileProviderItemPtr create(const platform::NSFileProviderItem& wanted,
                                         const std::optional<std::filesystem::path>& contents);
  platform::NSFileProviderItemPtr modify(const platform::NSFileProviderItem& wanted,
                                         platform::NSFileProviderItemFields fields,
                                         const std::optional<std::filesystem::path>& contents);
  void removeItem(const std::string& identifier);
  std::string anchor() const;
  std::vector<RemoteItem> listing(const std::string& folderIdentifier) const;
  // The identifiers of what was in the folder at one of these times.
  std::set<std::string> seenIn(const std::string& folderIdentifier, std::uint64_t from,
                               std::uint64_t to) const;
  // Whether the folder did not have the item at one of these times, or not as it is.
  bool wasOther(const std::string& folderIdentifier, const RemoteItem& item, std::uint64_t from,
                std::uint64_t to) const;
  std::vector<RemoteItem> listingAt(const std::string& folderIdentifier, std::uint64_t time) const;

  RemoteItem* find(const std::string& path) REQUIRES_LOCK(mutex_);
  Folder& folderAt(const std::string& path) REQUIRES_LOCK(mutex_);
  Folder* folderOf(const std::string& identifier, std::string& parent) REQUIRES_LOCK(mutex_);
  static RemoteItem* findIn(Folder& folder, const std::string& identifier);
  /// Whether `folder` is the item `identifier`, or lies in it.
  bool isWithin(std::string folder, const std::string& identifier) REQUIRES_LOCK(mutex_);
  void changed() REQUIRES_LOCK(mutex_);
  std::string versionOf(const char* kind, const RemoteItem& item) REQUIRES_LOCK(mutex_);
  void removeFrom(Folder& folder, const std::string& identifier, std::vector<std::string>& gone)
      REQUIRES_LOCK(mutex_);
  RemoteItem* findIfThere(const std::string& path) REQUIRES_LOCK(mutex_);
  bool isFolderAt(const std::string& path) REQUIRES_LOCK(mutex_);
  void store(RemoteItem& item, const std::filesystem::path& contents) REQUIRES_LOCK(mutex_);
  platform::NSFileProviderItemPtr answerFor(const RemoteItem& item, const std::string& parent,
                                            bool hasContents) REQUIRES_LOCK(mutex_);
  std::string place(const std::string& identifier, const std::string& parent,
                    const std::string& name) REQUIRES_LOCK(mutex_);
  void renumber(const std::string& from, const std::string& to) REQUIRES_LOCK(mutex_);
  std::string identifierAt(const std::string& path) REQUIRES_LOCK(mutex_);
  std::string identifierFor(const std::string& parent, const std::string& name)
      REQUIRES_LOCK(mutex_);
  std::string pathOf(const std::string& identifier) const REQUIRES_LOCK(mutex_);

  mutable platform::Mutex mutex_;
  std::condition_variable asked_;
  std::uint64_t nextIdentifier_ GUARDED_BY(mutex_) = 1;
  std::uint64_t time_ GUARDED_BY(mutex_) = 1;
  std::map<std::string, Folder> folders_ GUARDED_BY(mutex_);  // by identifier
  std::map<std::uint64_t, std::map<std::string, Folder>> history_ GUARDED_BY(mutex_);
  std::map<Key, int> counts_ GUARDED_BY(mutex_);
  std::map<Key, bool> holding_ GUARDED_BY(mutex_);
  std::map<Key, platform::NSErrorPtr> failures_ GUARDED_BY(mutex_);
  std::map<Key, platform::NSErrorPtr> lost_ GUARDED_BY(mutex_);
  std::vector<std::string> uploads_ GUARDED_BY(mutex_);
  std::uint64_t nextVersion_ GUARDED_BY(mutex_) = 1;
  bool pathIdentifiers_ GUARDED_BY(mutex_) = false;
  bool unreachable_ GUARDED_BY(mutex_) = false;
  std::deque<Held> held_ GUARDED_BY(mutex_);
  Weather weather_ GUARDED_BY(mutex_);
  std::vector<Held> heldByWeather_ GUARDED_BY(mutex_);
  std::size_t underWay_ GUARDED_BY(mutex_) = 0;
  bool everyChangeMoves_ GUARDED_BY(mutex_) = false;
  std::map<std::string, std::string> versions_ GUARDED_BY(mutex_);  // the contents of each
  std::map<std::string, std::vector<std::string>> versionsOf_ GUARDED_BY(mutex_);  // by identifier
  std::filesystem::path signalFile_ GUARDED_BY(mutex_);
  bool changesFail_ GUARDED_BY(mutex_) = false;
  bool exaggerate_ GUARDED_BY(mutex_) = false;
  bool anchorsExpired_ GUARDED_BY(mutex_) = false;
  std::size_t pageSize_ GUARDED_BY(mutex_) = 0;
  std::size_t changesAtOnce_ GUARDED_BY(mutex_) = 0;
  bool invalidated_ GUARDED_BY(mutex_) = false;
  int cancelled_ GUARDED_BY(mutex_) = 0;
};

}  // namespace kestrune::host::test
