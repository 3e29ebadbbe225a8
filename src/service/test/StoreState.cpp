#include "service/test/StoreState.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "tests/support/TemporaryDirectory.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using Items = std::map<std::string, Contents>;

bool areSame(const Contents& a, const Contents& b) {
  if (!a || !b) return !a && !b;
  return a == b || *a == *b;
}

std::string describe(const Contents& contents) {
  constexpr std::size_t kShown = 40;
  if (!contents) return "a folder";
  return fmt::format("{} bytes '{}'", contents->size(), contents->substr(0, kShown));
}

std::string difference(const Items& expected, const Items& actual) {
  std::string lines;
  for (const auto& [name, contents] : expected) {
    const auto found = actual.find(name);
    if (found == actual.end()) {
      lines += fmt::format("  missing: {}, {}\n", name, describe(contents));
    } else if (!areSame(contents, found->second)) {
      lines += fmt::format("  different: {}, {} instead of {}\n", name, describe(found->second),
                           describe(contents));
    }
  }
  for (const auto& [name, contents] : actual) {
    if (!expected.contains(name))
      lines += fmt::format("  too much: {}, {}\n", name, describe(contents));
  }
  return lines;
}

Contents contentsAt(const fs::path& file) {
  return std::make_shared<const std::string>(support::contentsOf(file));
}

}  // namespace

bool isWithin(const std::string& path, const std::string& folder) {
  return path == folder || path.starts_with(folder + "/");
}

void StoreState::move(const std::string& source, const std::string& destination) {
  Items moved;
  for (const auto& [path, contents] : tree) {
    if (isWithin(path, source)) moved[destination + path.substr(source.size())] = contents;
  }
  remove(source);
  tree.merge(moved);
}

void StoreState::remove(const std::string& path) {
  std::erase_if(tree, [&](const auto& item) { return isWithin(item.first, path); });
}

void StoreState::import(const std::string& key, const std::string& path) {
  tree[path] = objects.at(key);
  objects.erase(key);
}

StoreState StoreState::onDisk(const fs::path& root, const fs::path& staging) {
  StoreState state;
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    const std::string path = "/" + entry.path().lexically_relative(root).string();
    if (entry.is_symlink() || (!entry.is_directory() && !entry.is_regular_file()))
      throw std::runtime_error(path + " is neither a file nor a folder");
    state.tree[path] = entry.is_directory() ? nullptr : contentsAt(entry.path());
  }
  for (const auto& entry : fs::directory_iterator(staging / "objects"))
    state.objects[entry.path().filename()] = contentsAt(entry.path());
  return state;
}

std::string StoreState::differenceFrom(const StoreState& other) const {
  return difference(other.tree, tree) + difference(other.objects, objects);
}

}  // namespace kestrune::service
