#include "host/volume/test/ModelFileSystem.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <thread>

#include "platform/files/Paths.h"

namespace kestrune::host::test {

namespace {

// How a state of names that others change at the same time may be answered.
bool isOfNames(int error) {
  return error == ENOENT || error == EEXIST || error == ENOTEMPTY || error == EISDIR ||
         error == ENOTDIR || error == ESTALE || error == EINVAL;
}

}  // namespace

ModelFileSystem::ModelFileSystem(std::uint64_t seed, ModelCounts& counts)
    : random_(seed),
      counts_(counts),
      weather_(std::make_shared<ModelWeather>(seed, counts)),
      host_(percent(30)),
      movesAnchors_(percent(60)),
      hasOthers_(percent(65)) {
  chooseStore();
  FakeRemote& remote = host_.remote();
  for (std::size_t i = below(8); i > 0; --i) {
    std::string folder = "/";
    for (const auto& [path, contents] : remote.tree()) {
      if (!contents && percent(40)) folder = path;
    }
    const std::string path = (folder == "/" ? "" : folder) + "/" + "abcd"[below(4)];
    const std::string text = newText();
    if (percent(40)) {
      remote.tryPut(path, std::nullopt);
    } else if (remote.tryPut(path, text)) {
      precious_.insert(text);
    }
  }
  remote.announce();
  names_ = ModelNames(remote.tree());
  remote.setWeather([weather = weather_](Ask ask) { return weather->treat(ask); });
  host_.fileSystem().start();
}

void ModelFileSystem::chooseStore() {
  FakeRemote& remote = host_.remote();
  const auto chosen = [this](std::size_t chance, const char* what) {
    const bool is = percent(chance);
    if (is) tell(what);
    return is;
  };
  hasPaths_ = chosen(50, "identifiers are paths");
  if (hasPaths_) remote.usePathsAsIdentifiers();
  if (movesAnchors_) {
    tell("every change moves the anchor");
    remote.moveAnchorWithEveryChange();
  }
  if (chosen(20, "changes are exaggerated")) remote.exaggerateChanges(true);
  if (chosen(20, "listings come in pages")) remote.setPageSize(1 + below(3));
  // Where a renaming is two changes, a deletion and a new item, they belong together.
  if (!hasPaths_ && chosen(20, "changes come in pieces")) remote.setChangesAtOnce(1 + below(3));
}

std::size_t ModelFileSystem::below(std::size_t bound) {
  return std::uniform_int_distribution<std::size_t>(0, bound - 1)(random_);
}

// No two are alike, nor is one the beginning of another.
std::string ModelFileSystem::newText() {
  const std::string mark = "<" + std::to_string(++lastText_) + ">";
  std::string text;
  const std::size_t length = 1 + (percent(5) ? 20'000 + below(20'000) : below(60));
  while (text.size() < length) text += mark;
  return text;
}

void ModelFileSystem::step() {
  using Doing = void (ModelFileSystem::*)();
  struct Choice {
    std::size_t weight;
    Doing doing;
  };
  static constexpr std::array kChoices = {
      Choice{14, &ModelFileSystem::make},         Choice{6, &ModelFileSystem::remove},
      Choice{10, &ModelFileSystem::rename},       Choice{4, &ModelFileSystem::list},
      Choice{4, &ModelFileSystem::examine},       Choice{3, &ModelFileSystem::setTime},
      Choice{5, &ModelFileSystem::saveByRename},  Choice{10, &ModelFileSystem::open},
      Choice{8, &ModelFileSystem::closeSome},     Choice{12, &ModelFileSystem::readSome},
      Choice{12, &ModelFileSystem::writeSome},    Choice{4, &ModelFileSystem::resize},
      Choice{3, &ModelFileSystem::sync},          Choice{10, &ModelFileSystem::changeThere},
      Choice{6, &ModelFileSystem::changeWeather}, Choice{6, &ModelFileSystem::signal},
      Choice{2, &ModelFileSystem::restart},       Choice{2, &ModelFileSystem::kill}};
  std::size_t sum = 0;
  for (const Choice& choice : kChoices) sum += choice.weight;
  std::size_t chosen = below(sum);
  for (const Choice& choice : kChoices) {
    if (chosen < choice.weight) {
      (this->*choice.doing)();
      break;
    }
    chosen -= choice.weight;
  }
  if (percent(15)) finishReadings();
  if (percent(30)) host_.remote().releaseAll();
  if (percent(35)) pass(std::chrono::milliseconds(10 + below(percent(20) ? 2000 : 400)));
  forgetVisited();
  compareNames();
}

// ------------------------------------------------------------------------------------------- what there is

std::map<std::string, ModelFileSystem::Seen> ModelFileSystem::view() {
  std::map<std::string, Seen> view;
  host_.fileSystem().volume()->look([&](Tree& tree, Nodes&) {
    const std::function<void(const std::string&, const Item&)> visit = [&](const std::string& path,
                                                                           const Item& item) {
      const bool isEnumerated = item.isFolder && item.part()->listing.isEnumerated;
      view[path.empty() ? "/" : path] = {item.id, item.isFolder, isEnumerated};
      if (!item.isFolder) return;
      for (const Item* child : item.part()->children)
        visit(path + "/" + std::string(child->name()), *child);
    };
    visit("", tree.root());
  });
  return view;
}

// Everything that is seen is as it must be, and of what is known nothing is missing.
void ModelFileSystem::compareNames() {
  if (!isExact_) return;
  const auto seen = view();
  for (const auto& [path, what] : seen) {
    const ModelNodePtr node = names_.find(path);
    if (!node || node->isFolder != what.isFolder) {
      ADD_FAILURE() << path << " is not what it was made";
      return;
    }
    if (node->inode == 0) node->inode = what.inode;
    EXPECT_EQ(node->inode, what.inode) << path;
  }
  for (const auto& [path, contents] : names_.paths()) {
    const auto folder = seen.find(platform::deletingLastPathComponent(path));
    if (folder != seen.end() && folder->second.isEnumerated)
      EXPECT_TRUE(seen.contains(path)) << path << " is missing";
  }
}

ModelNames ModelFileSystem::known() {
  if (isExact_) return names_;
  ModelNames::Paths paths;
  for (const auto& [path, what] : view()) {
    if (path != "/") paths[path] = what.isFolder ? std::nullopt : std::optional(std::string());
  }
  return ModelNames(paths);
}

std::string ModelFileSystem::someFolder() {
  const auto folders = known().folders();
  return folders[below(folders.size())];
}

std::string ModelFileSystem::somePath() {
  const auto paths = known().paths();
  if (paths.empty() || percent(15)) {
    const std::string folder = someFolder();
    return (folder == "/" ? "" : folder) + "/" + "abcd"[below(4)];
  }
  auto some = paths.begin();
  std::advance(some, below(paths.size()));
  return some->first;
}

// ------------------------------------------------------------------------------------------- calls

template <class T>
Answer<T> ModelFileSystem::get(const Awaited<T>& awaited, Waits waits) {
  using namespace std::chrono_literals;
  for (int i = 0; waits == Waits::listing && i < 1'000'000 && !awaited.ready(); ++i) {
    std::this_thread::sleep_for(50us);
    if (i < 40) continue;
    // A folder that is just moving is asked for again a little later.
    if (host_.remote().countHeld() == 0) {
      if (i % 20 == 0) host_.timers().advance(10ms);
      continue;
    }
    // Who waits for a listing that is held waits for a minute, if it does not come before.
    if (percent(50)) {
      host_.remote().releaseAll();
    } else {
      counts_.add("minutes waited");
      tell("a minute passes");
      host_.timers().advance(FolderLister::kPatience);
      break;
    }
  }
  return awaited.get();  // throws if that does not come
}

template Answer<Done> ModelFileSystem::get(const Awaited<Done>&, Waits);
template Answer<Entry> ModelFileSystem::get(const Awaited<Entry>&, Waits);
template Answer<Created> ModelFileSystem::get(const Awaited<Created>&, Waits);
template Answer<OpenFilePtr> ModelFileSystem::get(const Awaited<OpenFilePtr>&, Waits);
template Answer<Attributes> ModelFileSystem::get(const Awaited<Attributes>&, Waits);

// The kernel looks names up again, once, when something on the way is not what it was.
ModelFileSystem::Walked ModelFileSystem::walk(const std::string& path) {
  const Walked at = walkOnce(path);
  return at.error == ESTALE ? walkOnce(path) : at;
}

ModelFileSystem::Walked ModelFileSystem::walkOnce(const std::string& path) {
  Walked at;
  at.node = kRootNode;
  if (path == "/") {
    at.attributes = host_.fileSystem().attributes(kRootNode).value();
    return at;
  }
  at = walkOnce(platform::deletingLastPathComponent(path));
  if (at.error != 0) return at;
  if (!at.attributes.isFolder) return {ENOTDIR, 0, {}};
  const Awaited<Entry> found;
  host_.fileSystem().lookup(at.node, platform::lastPathComponent(path), found.reply());
  const auto answer = get(found, Waits::listing);
  if (!answer.ok()) return {errnoOf(answer), 0, {}};
  if (answer.value().node == 0) return {ENOENT, 0, {}};
  visited_.push_back(answer.value().node);
  return {0, answer.value().node, answer.value().attributes};
}

// As the kernel does some time.
void ModelFileSystem::forgetVisited() {
  if (!percent(50)) return;
  for (const NodeId node : std::exchange(visited_, {})) host_.fileSystem().forget(node, 1);
}

void ModelFileSystem::tell(const std::string& what, int error) {
  tell(what + (error == 0 ? "" : std::string(": ") + std::strerror(error)));
}

bool ModelFileSystem::isAllowed(int error, int expected) const {
  if (error == expected) return true;
  if (isFaulty_ && isOfWeather(error)) return true;
  return !isExact_ && (error == 0 || isOfNames(error));
}

bool ModelFileSystem::judge(const std::string& what, int error, int expected) {
  tell(what, error);
  EXPECT_TRUE(isAllowed(error, expected))
      << what << ": " << std::strerror(error) << " instead of " << std::strerror(expected);
  return error == 0;
}

}  // namespace kestrune::host::test
