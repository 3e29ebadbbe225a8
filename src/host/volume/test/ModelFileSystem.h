// Programs on a mounted folder, others at its store, and everything that goes wrong between them, drawn from a seed; and what
// must be true whatever happens.
//
// While nobody but the programs here changes anything, the folder must be exactly what a file system in memory is (`ModelNames`),
// whatever the store does. From the first change by others until everything came to rest again, names may change at any time; then
// what is read must be bytes of one version, written here or told by the store, and nothing may be lost.
//
// Background work runs on real threads, so a seed gives the same doings, not always the same order of what follows.
//
// Threads: one. Fails: as failures of the running test; `story` tells what was done.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "host/volume/OpenVolumeFile.h"
#include "host/volume/test/HostHarness.h"
#include "host/volume/test/ModelNames.h"
#include "host/volume/test/ModelWeather.h"

namespace kestrune::host::test {

class ModelFileSystem {
 public:
  /// `counts`: how often something happened, in all sequences together.
  ModelFileSystem(std::uint64_t seed, ModelCounts& counts);

  void step();
  /// Everything comes to rest, and both sides are the same.
  void settle();
  const std::vector<std::string>& story() const { return story_; }

 private:
  struct Handle {
    OpenFilePtr file;
    InodeNumber inode = 0;
    std::string path;  // when it was opened
    bool writes = false;
    /// While names are exact.
    ModelNodePtr model;
  };
  using HandlePtr = std::shared_ptr<Handle>;
  /// Bytes of a file that was changed here.
  struct Local {
    std::string bytes;
    /// Which of them are the store's still (1). They go if the store has them no longer before they were fetched.
    std::string isOld;
  };
  struct Reading {
    HandlePtr handle;
    std::int64_t offset = 0;
    std::size_t length = 0;
    Awaited<std::string> answer;
    /// What the whole file may have been since it began.
    std::vector<std::string> acceptable;
    /// Which version the file was of then.
    std::string version;
  };
  /// What a program may have to wait for.
  enum class Waits { disk, listing };
  struct Walked {
    int error = 0;
    NodeId node = 0;
    Attributes attributes;
  };
  struct Seen {
    InodeNumber inode = 0;
    bool isFolder = false;
    bool isEnumerated = false;
  };

  // Chance.
  std::size_t below(std::size_t bound);
  bool percent(std::size_t chance) { return below(100) < chance; }
  std::string newText();
  void chooseStore();
  ModelNames known();
  std::string someFolder();
  std::string somePath();

  // Calls.
  template <class T>
  Answer<T> get(const Awaited<T>& awaited, Waits waits);
  Walked walk(const std::string& path);
  Walked walkOnce(const std::string& path);
  void forgetVisited();
  void tell(const std::string& what) { story_.push_back(what); }
  void tell(const std::string& what, int error);
  bool isAllowed(int error, int expected) const;
  /// Tells, and whether it succeeded; a failure of the test if it may not end so.
  bool judge(const std::string& what, int error, int expected);
  std::map<std::string, Seen> view();
  void compareNames();

  // Names.
  void make();
  void remove();
  void rename();
  void list();
  void examine();
  void setTime();
  void saveByRename();
  int lookUp(const std::string& path);
  InodeNumber childOf(const Walked& folder, const std::string& name);
  int create(const std::string& path, bool isFolder, HandlePtr* opened);
  int removePath(const std::string& path, bool isFolder);
  int renamePath(const std::string& from, const std::string& to, RenameMode mode);

  // Bytes.
  void open();
  void closeSome();
  void readSome();
  void writeSome();
  void resize();
  void sync();
  HandlePtr someHandle(bool writes);
  HandlePtr openPath(const std::string& path, OpenMode mode);
  void close(const HandlePtr& handle);
  void closeAll();
  void write(const HandlePtr& handle, std::int64_t offset, const std::string& text);
  std::string before(const HandlePtr& handle);
  using Change = std::function<std::string(std::string bytes)>;
  std::string beforeChange(const HandlePtr& handle, bool wasHere, const std::string& first,
                           const Change& change);
  std::vector<std::string> mayBe(const HandlePtr& handle);
  /// `written`: from where to where; the rest of `bytes` is as it was.
  void changed(const HandlePtr& handle, const std::string& was, const std::string& bytes,
               ByteRange written);
  void startReading(const HandlePtr& handle, std::int64_t offset, std::size_t length);
  bool finish(Reading& reading);
  void finishReadings();
  std::string readWhole(const std::string& path);
  std::optional<std::string> contentsOf(const ContentState& state);
  bool hasLostOld(const Local& local, const ContentState& state, std::int64_t firstOld);
  void loseOld(Local& local);
  void checkAgreement(const HandlePtr& handle);
  void keep(const HandlePtr& handle);
  bool isLinked(InodeNumber inode);
  std::vector<std::string> shown(InodeNumber inode);
  std::vector<std::string> replacedBy(InodeNumber inode);
  void forgetContents(const std::vector<std::string>& contents);

  // Others, the store, and the host's life.
  void leaveExact();
  bool isBeingSent(const std::string& path);
  bool isBeingRemoved(const std::string& path);
  void changeThere();
  void changeWeather();
  void signal();
  void pass(std::chrono::milliseconds duration);
  void restart();
  void kill();

  // The end.
  bool comeToRest();
  bool isIdle();
  ModelNames::Paths here();
  void compareWithStore();
  void tellWhatIsLeft();

  std::mt19937_64 random_;
  ModelCounts& counts_;
  std::shared_ptr<ModelWeather> weather_;
  HostHarness host_;
  const bool movesAnchors_;
  const bool hasOthers_;
  bool hasPaths_ = false;
  bool isExact_ = true;
  /// The weather was not fair all the time since everything was at rest.
  bool isFaulty_ = false;
  ModelNames names_;  // while they are exact
  std::vector<HandlePtr> handles_;
  std::vector<Reading> readings_;
  /// By contents.
  std::map<ContentNumber, Local> local_;
  /// What is left of contents if that happened.
  std::map<std::string, std::string> withoutOld_;
  /// Written here or put there last, and not removed or replaced by anybody who knew.
  std::set<std::string> precious_;
  /// What was at the store and went by others' doing.
  std::set<std::string> gone_;
  std::vector<NodeId> visited_;
  int lastText_ = 0;
  std::vector<std::string> story_;
};

}  // namespace kestrune::host::test
