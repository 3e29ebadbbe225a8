#include "tests/mount/MountedStore.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "tests/support/Waiting.h"

namespace kestrune::mounttest {

namespace {

namespace fs = std::filesystem;
constexpr std::chrono::seconds kDeadline{20};

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Child::Child(std::vector<std::string> arguments) {
  std::array<int, 2> in{};
  std::array<int, 2> out{};
  if (::pipe2(in.data(), O_CLOEXEC) != 0 || ::pipe2(out.data(), O_CLOEXEC) != 0) fail("pipe");
  input_ = in[1];
  output_ = out[0];
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  ::posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  std::vector<char*> pointers;
  for (auto& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  const int error = ::posix_spawnp(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  if (error != 0) throw std::system_error(error, std::generic_category(), arguments[0]);
}

Child::~Child() {
  if (!status_) {
    ::kill(pid_, SIGTERM);
    if (!waitForEnd(std::chrono::seconds(5))) {
      ::kill(pid_, SIGKILL);
      static_cast<void>(waitForEnd());
    }
  }
  ::close(input_);
  ::close(output_);
}

void Child::writeLine(const std::string& line) {
  const std::string text = line + "\n";
  if (::write(input_, text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    fail("write to a child");
}

std::string Child::readLine() {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  for (;;) {
    if (const auto end = pending_.find('\n'); end != std::string::npos) {
      std::string line = pending_.substr(0, end);
      pending_.erase(0, end + 1);
      return line;
    }
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd polled = {output_, POLLIN, 0};
    if (left.count() <= 0 || ::poll(&polled, 1, static_cast<int>(left.count())) == 0) {
      throw std::runtime_error("a child said nothing in time");
    }
    std::array<char, 4096> buffer{};
    const ssize_t length = ::read(output_, buffer.data(), buffer.size());
    if (length == 0) throw std::runtime_error("a child ended");
    if (length > 0) pending_.append(buffer.data(), static_cast<std::size_t>(length));
  }
}

void Child::signal(int number) { ::kill(pid_, number); }

std::optional<int> Child::waitForEnd(std::chrono::milliseconds deadline) {
  if (status_) return status_;
  static_cast<void>(support::waitUntil(
      [this] {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_) status_ = status;
        return status_.has_value();
      },
      deadline));
  return status_;
}

MountedStore::MountedStore() : mountPoint_(directory_.path() / "mount point") {
  fs::create_directory(mountPoint_);
  start();
}

MountedStore::~MountedStore() {
  host_.reset();
  ::umount2(mountPoint_.c_str(), MNT_DETACH);
}

std::vector<std::string> MountedStore::hostArguments() const {
  return {std::string(KESTRUNE_BIN_DIR) + "/fake_mount", mountPoint_.string(),
          (directory_.path() / "replica").string(),
          (directory_.path() / "share" / "token").string()};
}

void MountedStore::start() {
  host_ = std::make_unique<Child>(hostArguments());
  const auto first = platform::decodeJson(host_->readLine());
  if (!first.contains("mounted")) throw std::runtime_error(first.value("error", "no reason given"));
}

void MountedStore::mountAgain() {
  host_.reset();
  start();
}

bool MountedStore::isMounted() const {
  std::ifstream table("/proc/self/mountinfo");
  const std::string place = " " + directory_.path().string() + "/mount\\040point ";
  for (std::string line; std::getline(table, line);) {
    if (line.find(place) != std::string::npos) return true;
  }
  return false;
}

platform::Json MountedStore::command(const platform::Json& words) {
  host_->writeLine(platform::encodeJson(words));
  auto answer = platform::decodeJson(host_->readLine());
  if (!answer.contains("value")) throw std::runtime_error(answer.value("error", "no answer"));
  return answer["value"];
}

void MountedStore::announce(const std::string& folder) {
  const int before = say("asked", "changes", folder);
  say("announce");
  if (!say("waitUntilAsked", "changes", folder, before + 1).get<bool>()) {
    throw std::runtime_error("the host did not ask for changes");
  }
}

const char* whyNoMount() {
  if (::access("/dev/fuse", R_OK | W_OK) != 0) return "this machine lets nobody use /dev/fuse";
  return nullptr;
}

}  // namespace kestrune::mounttest
