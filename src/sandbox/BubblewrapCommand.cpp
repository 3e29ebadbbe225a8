#include "sandbox/BubblewrapCommand.h"

#include <algorithm>
#include <utility>

namespace kestrune::sandbox {

namespace {

class Arguments {
 public:
  template <class... Words>
  void add(const Words&... words) {
    (all_.emplace_back(words), ...);
  }
  std::vector<std::string> take() { return std::move(all_); }

 private:
  std::vector<std::string> all_;
};

void addPlace(Arguments& command, const Place& place) {
  switch (place.access) {
    case Access::read:
      return command.add("--ro-bind", place.path, place.path);
    case Access::readWrite:
      return command.add("--bind", place.path, place.path);
    case Access::device:
      return command.add("--dev-bind", place.path, place.path);
    case Access::processes:
      return command.add("--proc", place.path);
  }
}

/// Each place after the one that it lies in, and after what covers it there.
void addPlaces(Arguments& command, const SandboxRules& rules) {
  const auto isCovered = [&](const Place& place) {
    return std::ranges::any_of(rules.covered,
                               [&](const auto& cover) { return isWithin(place.path, cover); });
  };
  for (const Place& place : rules.places) {
    if (!isCovered(place)) addPlace(command, place);
  }
  for (const auto& cover : rules.covered) command.add("--tmpfs", cover);
  for (const Place& place : rules.places) {
    if (isCovered(place)) addPlace(command, place);
  }
  for (const auto& cover : rules.covered) command.add("--remount-ro", cover);
  for (const Link& link : rules.links) command.add("--symlink", link.target, link.path);
  // The folders that lead to the places are bubblewrap's own, in memory.
  command.add("--remount-ro", "/");
}

}  // namespace

std::vector<std::string> bubblewrapCommand(const SandboxRules& rules,
                                           const std::map<std::string, std::string>& environment,
                                           const std::vector<std::string>& arguments) {
  Arguments command;
  command.add(kBubblewrap, "--unshare-user", "--unshare-ipc", "--unshare-pid", "--unshare-uts",
              "--unshare-cgroup-try", "--die-with-parent", "--new-session", "--cap-drop", "ALL");
  command.add("--clearenv");
  for (const auto& [name, value] : environment) command.add("--setenv", name, value);
  addPlaces(command, rules);
  command.add("--chdir", "/", "--", rules.program);
  for (const std::string& argument : arguments) command.add(argument);
  return command.take();
}

}  // namespace kestrune::sandbox
