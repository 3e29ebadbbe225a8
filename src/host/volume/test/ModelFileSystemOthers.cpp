// What others do, what becomes of the host, and the end.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "host/volume/test/ModelFileSystem.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/files/Paths.h"

namespace kestrune::host::test {

using namespace std::chrono_literals;

void ModelFileSystem::leaveExact() {
  isExact_ = false;
  for (const HandlePtr& handle : handles_) handle->model = nullptr;
}

// Between the host's last look at the store and its change nobody can keep others from changing the same.
bool ModelFileSystem::isBeingSent(const std::string& path) {
  std::set<std::string> identifiers;
  for (const UnsentChange& change : host_.unsent()) {
    if (!change.isUnderWay) continue;
    host_.fileSystem().volume()->look([&](Tree& tree, Nodes&) {
      const Item* item = tree.find(change.item);
      if (item == nullptr) return;
      // Of a folder it may be what is in it; of what is not there yet, anything.
      if (item->isFolder || !item->there) identifiers.insert("");
      if (item->there) identifiers.insert(item->there->identifier);
    });
  }
  const bool isFile = host_.remote().contents(path).has_value();
  return identifiers.contains(host_.remote().identifierOf(path)) || identifiers.contains("") ||
         (!isFile && !identifiers.empty());
}

// Whether a removal that has gone out may take `path` along: what others put there after the last look nobody can know of.
bool ModelFileSystem::isBeingRemoved(const std::string& path) {
  std::set<std::string> removed;
  for (const UnsentChange& change : host_.unsent()) {
    if (!change.isUnderWay) continue;
    host_.fileSystem().volume()->look([&](Tree& tree, Nodes&) {
      const Item* item = tree.find(change.item);
      if (item != nullptr && item->isFolder && !item->isLinked() && item->there)
        removed.insert(item->there->identifier);
    });
  }
  for (std::size_t end = path.rfind('/'); end != 0; end = path.rfind('/', end - 1)) {
    if (removed.contains(host_.remote().identifierOf(path.substr(0, end)))) return true;
  }
  return false;
}

void ModelFileSystem::changeThere() {
  if (!hasOthers_) return;
  leaveExact();
  FakeRemote& remote = host_.remote();
  const ModelNames store(remote.tree());
  const auto folders = store.folders();
  const auto all = store.paths();
  auto some = all.begin();
  if (!all.empty()) std::advance(some, below(all.size()));
  const std::string path = all.empty() ? "" : some->first;
  const std::string folder = folders[below(folders.size())];
  const std::string other = (folder == "/" ? "" : folder) + "/" + "abcd"[below(4)];
  // What is as long and as young as what was sent a moment ago is taken for that.
  std::string text = newText();
  text.resize(500 + static_cast<std::size_t>(lastText_), '.');
  std::vector<std::string> gone;
  const std::size_t what = below(100);
  if (isBeingRemoved(other)) return;
  if (path.empty() || what < 35) {
    const bool isFolder = percent(30);
    if (!remote.tryPut(other, isFolder ? std::nullopt : std::optional(text))) return;
    tell("others put " + other + (isFolder ? "/" : " (" + shortened(text) + ")"));
    if (!isFolder) precious_.insert(text);
  } else if (isBeingSent(path)) {
    return;
  } else if (what < 65) {
    std::string before;
    if (!remote.tryOverwrite(path, text, before)) return;
    tell("others overwrite " + path + " (" + shortened(text) + ")");
    gone.push_back(before);
    precious_.insert(text);
  } else if (what < 80) {
    if (!remote.tryRename(path, other)) return;
    tell("others rename " + path + " -> " + other);
  } else {
    if (!remote.tryRemove(path, gone)) return;
    tell("others remove " + path);
  }
  forgetContents(gone);
  gone_.insert(gone.begin(), gone.end());
  std::erase_if(precious_, [&](const std::string& contents) {
    const auto left = withoutOld_.find(contents);
    return left != withoutOld_.end() && gone_.contains(left->second);
  });
  counts_.add("changes by others");
  if (!movesAnchors_ || percent(30)) remote.announce();
  if (percent(60)) host_.fileSystem().changesSignalled();
}

void ModelFileSystem::changeWeather() {
  using Sky = ModelWeather::Sky;
  constexpr std::array kSkies = {Sky::fair,  Sky::fair,  Sky::fair, Sky::unreachable,
                                 Sky::flaky, Sky::lossy, Sky::slow, Sky::wild};
  const Sky sky = kSkies.at(below(kSkies.size()));
  if (sky != Sky::fair) isFaulty_ = true;
  // What was removed may be shown again by a listing that comes late, or when it had been made and the answer was lost.
  const bool mayReturn = sky == Sky::slow || sky == Sky::lossy || sky == Sky::wild;
  if (mayReturn) leaveExact();
  weather_->set(sky);
  tell(std::string("the store is ") + nameOf(sky));
}

void ModelFileSystem::signal() {
  if (!movesAnchors_) host_.remote().announce();
  host_.remote().expireAnchors(percent(15));
  host_.fileSystem().changesSignalled();
  tell("signal");
}

void ModelFileSystem::pass(std::chrono::milliseconds duration) {
  tell(std::to_string(duration.count()) + " ms pass");
  constexpr auto kPiece = 50ms;
  for (; duration.count() > 0; duration -= std::min(duration, kPiece)) {
    host_.timers().advance(std::min<std::chrono::milliseconds>(duration, kPiece));
    std::this_thread::sleep_for(200us);
  }
}

void ModelFileSystem::restart() {
  finishReadings();
  closeAll();
  tell("restart");
  counts_.add("restarts");
  const bool isUnsent = host_.sender().countUnsent() > 0;
  if (isUnsent) counts_.add("restarts with something unsent");
  host_.restart([this] { host_.remote().releaseAll(); });
  visited_.clear();
}

// What is under way at that moment may have happened at the store; nobody hears of it.
void ModelFileSystem::kill() {
  tell("kill");
  counts_.add("kills");
  if (host_.sender().countUnsent() > 0) counts_.add("kills with something unsent");
  for (const HandlePtr& handle : handles_) {
    if (handle->writes) keep(handle);
  }
  const bool wasFair = weather_->isFair();
  weather_->set(ModelWeather::Sky::frozen);
  readings_.clear();
  host_.restartFromCopy([this] {
    weather_->set(ModelWeather::Sky::unreachable);
    handles_.clear();
    host_.remote().releaseAll(
        platform::NSFileProviderError(platform::NSFileProviderError::serverUnreachable).share());
  });
  weather_->set(ModelWeather::Sky::fair);
  visited_.clear();
  // What had been listed a moment before may not be remembered yet, and is given other numbers then.
  for (const auto& [path, contents] : names_.paths()) names_.find(path)->inode = 0;
  if (!wasFair) tell("the store is fair");
}

// ------------------------------------------------------------------------------------------- the end

bool ModelFileSystem::isIdle() {
  FileSystem& fileSystem = host_.fileSystem();
  return host_.remote().countUnderWay() == 0 && fileSystem.calls()->count() == 0 &&
         fileSystem.lister()->running().empty() && !fileSystem.refresher()->isAsking();
}

// Nothing is unsent, asked or planned.
bool ModelFileSystem::comeToRest() {
  // How long answers take to come is the machine's affair; what follows upon them is bounded.
  const auto deadline = std::chrono::steady_clock::now() + 30s;
  int quiet = 0;
  int waits = 0;
  for (int steps = 0; steps < 3'000 && quiet < 8;) {
    std::this_thread::sleep_for(150us);
    host_.remote().releaseAll();  // what was asked before the weather changed may be held only now
    if (!isIdle()) {
      quiet = 0;  // more may follow upon it
      if (std::chrono::steady_clock::now() > deadline) return false;
      // What is looked at again and again may be waiting for something that needs time.
      if (++waits % 50 == 0) host_.timers().advance(10ms);
      continue;
    }
    ++steps;
    quiet = host_.sender().countUnsent() == 0 ? quiet + 1 : 0;
    host_.timers().advance(std::max<std::chrono::nanoseconds>(
        10ms, std::min<std::chrono::nanoseconds>(host_.timers().untilNext().value_or(10ms), 5s)));
  }
  return quiet >= 8;
}

std::string ModelFileSystem::readWhole(const std::string& path) {
  const HandlePtr handle = openPath(path, OpenMode());
  if (!handle) return "(cannot be opened)";
  startReading(handle, 0, 1'000'000);
  Reading reading = readings_.back();
  readings_.pop_back();
  const bool isRead = finish(reading);
  close(handle);
  return isRead ? reading.answer.get().value() : "(cannot be read)";
}

ModelNames::Paths ModelFileSystem::here() {
  ModelNames::Paths paths;
  std::vector<std::string> folders = {"/"};
  for (std::size_t i = 0; i < folders.size(); ++i) {
    const Walked at = walk(folders[i]);
    if (at.error != 0) continue;
    for (const std::string& name : host_.names(at.node)) {
      const std::string path = (folders[i] == "/" ? "" : folders[i]) + "/" + name;
      const Walked child = walk(path);
      if (child.error == 0 && child.attributes.isFolder) {
        paths[path] = std::nullopt;
        // What is shown as a folder and is none, or none any more, is a difference like any other.
        if (host_.openFolderError(child.node) == 0) {
          folders.push_back(path);
        } else {
          paths[path] = "(cannot be listed)";
        }
      } else {
        paths[path] = readWhole(path);
      }
    }
  }
  return paths;
}

void ModelFileSystem::tellWhatIsLeft() {
  FileSystem& fileSystem = host_.fileSystem();
  tell("unanswered: " + std::to_string(host_.remote().countUnderWay()) +
       ", calls: " + std::to_string(fileSystem.calls()->count()) +
       ", listings: " + std::to_string(fileSystem.lister()->running().size()));
  fileSystem.volume()->look([this](Tree& tree, Nodes&) {
    const auto tellFolder = [&](const Item& item) {
      if (!item.isFolder || !item.there) return;
      const FolderRow& listing = item.part()->listing;
      tell("folder " + tree.path(item) + ": " + (listing.isEnumerated ? "listed" : "not listed") +
           (listing.hasStaleIdentifiers ? ", identifiers in doubt" : "") + ", anchor " +
           listing.anchor.value_or("none") + ", " + std::to_string(item.part()->untold.size()) +
           " untold");
    };
    tellFolder(tree.root());
    tree.forEach(tellFolder);
  });
  for (const UnsentChange& change : host_.unsent()) {
    const ContentState state = fileSystem.volume()->look([&](Tree& tree, Nodes&) {
      const Item* item = tree.find(change.item);
      return item != nullptr && item->content() ? item->content()->state : ContentState();
    });
    tell("unsent: " + change.path + (change.isUnderWay ? ", under way" : "") + ": " +
         change.reason + " (" + std::to_string(change.attempts) + " attempts; contents " +
         std::to_string(state.number) + " of version " + state.version + ": " +
         state.present.text() + " of " + std::to_string(state.sizeBytes) +
         (state.isEdited ? ", changed" : "") + ")");
  }
}

void ModelFileSystem::settle() {
  tell("everything comes to rest");
  weather_->set(ModelWeather::Sky::fair);
  host_.remote().releaseAll();
  finishReadings();
  closeAll();
  // Without it no change is told that happened between two listings.
  host_.remote().expireAnchors(!movesAnchors_);
  ModelNames::Paths seen;
  ModelNames::Paths stored;
  bool isAtRest = false;
  for (int round = 0; round < 10; ++round) {
    host_.remote().announce();
    host_.fileSystem().changesSignalled();
    host_.sender().retry("/");
    isAtRest = comeToRest();
    if (!isAtRest) continue;
    if (testing::Test::HasFailure()) return;
    const std::size_t told = story_.size();
    seen = here();
    story_.resize(told);
    stored = host_.remote().tree();
    if (seen == stored) break;
    // What is between two threads at this moment is seen by nobody; on a busy machine that may take long.
    std::this_thread::sleep_for(20ms * (round + 1));
  }
  EXPECT_TRUE(seen == stored) << "here:" << described(seen)
                              << "\n  at the store:" << described(stored);
  EXPECT_TRUE(isAtRest) << "it does not come to rest";
  if (seen != stored || !isAtRest) tellWhatIsLeft();
  compareWithStore();
  forgetVisited();
}

void ModelFileSystem::compareWithStore() {
  counts_.add("comparisons");
  const auto stored = host_.remote().tree();
  std::set<std::string> kept;
  bool hasConflict = false;
  for (const auto& [path, contents] : stored) {
    if (contents) kept.insert(*contents);
    hasConflict = hasConflict || path.find("(conflict") != std::string::npos;
  }
  if (hasConflict) counts_.add("sequences with conflicts");
  for (const std::string& contents : precious_)
    EXPECT_TRUE(kept.contains(contents) || kept.contains(withoutOld_[contents]))
        << "lost: " << shortened(contents);
  if (isExact_) {
    counts_.add("exact comparisons");
    EXPECT_TRUE(stored == names_.paths())
        << "at the store:" << described(stored)
        << "\n  as it was made here:" << described(names_.paths());
  }
  isExact_ = true;
  isFaulty_ = false;
  names_ = ModelNames(stored);
  for (const auto& [path, what] : view()) {
    if (const ModelNodePtr node = names_.find(path)) node->inode = what.inode;
  }
}

}  // namespace kestrune::host::test
