#include "service/WatchedFolders.h"

#include <limits>

namespace kestrune::service {

std::optional<std::string> WatchedFolders::pathOf(int watch) const {
  std::vector<const std::string*> names;
  for (int at = watch;;) {
    const auto found = folders_.find(at);
    if (found == folders_.end()) return std::nullopt;
    at = found->second.above;
    if (at == kNone) break;
    names.push_back(&found->second.name);
  }
  std::string path;
  for (auto name = names.rbegin(); name != names.rend(); ++name) path.append("/").append(**name);
  return path;
}

bool WatchedFolders::isWithin(int watch, int folder) const {
  while (watch != kNone && watch != folder) watch = above(watch);
  return watch == folder;
}

bool WatchedFolders::put(int watch, int above, const std::string& name) {
  if (above != kNone && isWithin(above, watch)) return false;
  const auto [found, isNew] = folders_.try_emplace(watch, Folder{above, name});
  if (!isNew) {
    children_.erase({found->second.above, watch});
    found->second = {above, name};
  }
  children_.emplace(above, watch);
  return true;
}

std::vector<int> WatchedFolders::forget(int watch) {
  std::vector<int> forgotten;
  const auto found = folders_.find(watch);
  if (found == folders_.end()) return forgotten;
  children_.erase({found->second.above, watch});
  forgotten.push_back(watch);
  for (std::size_t i = 0; i < forgotten.size(); ++i) {
    const int folder = forgotten[i];
    folders_.erase(folder);
    const auto begin = children_.lower_bound({folder, std::numeric_limits<int>::min()});
    auto end = begin;
    for (; end != children_.end() && end->first == folder; ++end) forgotten.push_back(end->second);
    children_.erase(begin, end);
  }
  return forgotten;
}

void WatchedFolders::clear() {
  folders_.clear();
  children_.clear();
}

}  // namespace kestrune::service
