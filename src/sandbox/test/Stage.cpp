#include "sandbox/test/Stage.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <system_error>
#include <utility>

#include "sandbox/BubblewrapCommand.h"

namespace kestrune::sandbox::test {

namespace {

const char* const kProbe = KESTRUNE_BIN_DIR "/sandbox_probe";
constexpr unsigned kDeadlineSeconds = 60;

int checked(int result, const char* what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

std::unique_ptr<Descriptor> listenUnix(const std::string& name, bool isAbstract) {
  auto socket = std::make_unique<Descriptor>(
      checked(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + (isAbstract ? 1 : 0), name.data(), name.size());
  const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size() + 1);
  checked(::bind(socket->number(), reinterpret_cast<const sockaddr*>(&address), size), "bind");
  checked(::listen(socket->number(), 4), "listen");
  return socket;
}

std::unique_ptr<Descriptor> listenTCP(int& port) {
  auto socket = std::make_unique<Descriptor>(
      checked(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket"));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  checked(::bind(socket->number(), generic, size), "bind");
  checked(::listen(socket->number(), 4), "listen");
  checked(::getsockname(socket->number(), generic, &size), "getsockname");
  port = ntohs(address.sin_port);
  return socket;
}

/// Becomes the command, with the descriptors that it is to have and one more.
[[noreturn]] void become(std::vector<std::string> command, bool isConfined, int socket, int output,
                         int errors) {
  ::alarm(kDeadlineSeconds);  // survives the exec
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& word : command) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  std::array<std::pair<int, int>, 4> descriptors{
      {{output, STDOUT_FILENO},
       {errors, STDERR_FILENO},
       {socket, kSocketDescriptor},
       {::open("/etc/passwd", O_RDONLY), kForeignDescriptor}}};
  constexpr int kOutOfTheWay = 64;
  for (auto& [from, to] : descriptors) from = ::fcntl(from, F_DUPFD_CLOEXEC, kOutOfTheWay);
  for (const auto& [from, to] : descriptors) ::dup2(from, to);
  // Without the leak check of the sanitizers, which forks and reads /proc.
  std::string options = "ASAN_OPTIONS=detect_leaks=0";
  std::array<char*, 2> environment{options.data(), nullptr};
  if (isConfined) ::execve(arguments[0], arguments.data(), environment.data());
  ::putenv(options.data());
  ::execv(arguments[0], arguments.data());
  ::_exit(127);
}

const char* wordFor(Confined confined) {
  switch (confined) {
    case Confined::bubblewrapped:
      return "bubblewrap";
    case Confined::alone:
      return "system";
    case Confined::late:
      return "late";
    case Confined::byLandlock:
      return "landlock";
    case Confined::byFilter:
      return "filter";
    case Confined::inBubblewrap:
    case Confined::not_:
      return "not";
  }
}

std::string contentsOfOpen(int file) {
  std::string text(65536, '\0');
  const ssize_t size = ::pread(file, text.data(), text.size(), 0);
  text.resize(static_cast<std::size_t>(checked(static_cast<int>(size), "read")));
  return text;
}

}  // namespace

Stage::Stage(Layout layout) {
  const auto& root = root_.path();
  at_.root = root;
  std::filesystem::create_directory(root / "home");
  std::filesystem::create_directory_symlink("home", root / "link");
  const auto home = root / (layout == Layout::inSharedThroughLink ? "link" : "home");
  at_.shared = home / ".local/share/Kestrune";
  const auto replica =
      layout == Layout::besideShared ? root / "replica" : at_.shared / "replica/main";
  at_.temporary = replica / "tmp";
  at_.outgoing = replica / "outgoing";
  for (const auto& directory : {at_.shared, at_.temporary, at_.outgoing, root / "outside"})
    std::filesystem::create_directories(directory);
  root_.write("home/.ssh/id_ed25519", "a key");
  root_.write("outside/file", "of somebody else");
  root_.write((replica / "contents/1").lexically_relative(root), "contents");
  root_.write((at_.outgoing / "7").lexically_relative(root), "to be sent");
  root_.write((at_.shared / "config.json").lexically_relative(root), "{}");
  const auto closed = root_.write((at_.shared / "closed").lexically_relative(root), "closed");
  std::filesystem::permissions(closed, std::filesystem::perms::none);
  std::filesystem::create_symlink(root / "home/.ssh/id_ed25519", at_.shared / "leads-to-key");

  at_.abstractSocket = "kestrune-" + root.filename().string();
  listeners_.push_back(listenUnix((root / "control.sock").string(), false));
  listeners_.push_back(listenUnix(at_.abstractSocket, true));
  listeners_.push_back(listenTCP(at_.port));
  at_.host = ::getpid();
  at_.hostMemory = reinterpret_cast<std::uintptr_t>(&at_);

  std::array<int, 2> ends{};
  checked(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), "socketpair");
  hostEnd_ = std::make_unique<Descriptor>(ends[0]);
  programEnd_ = std::make_unique<Descriptor>(ends[1]);
  checked(static_cast<int>(::send(ends[0], "ping", 4, 0)), "send");
}

SandboxPaths Stage::paths() const { return {at_.shared, at_.temporary, at_.outgoing, kProbe, {}}; }

std::vector<std::string> Stage::command(const std::string& attempt, Confined confined) const {
  std::vector<std::string> arguments = at_.asArguments();
  arguments.insert(arguments.begin(), {wordFor(confined), attempt});
  if (confined == Confined::bubblewrapped || confined == Confined::inBubblewrap) {
    return bubblewrapCommand(rulesFor(paths()), {{"ASAN_OPTIONS", "detect_leaks=0"}}, arguments);
  }
  arguments.insert(arguments.begin(), kProbe);
  return arguments;
}

Stage::Outcome Stage::run(const std::string& attempt, Confined confined) {
  const Descriptor output(
      checked(::open(root_.path().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600), "output"));
  const Descriptor errors(
      checked(::open(root_.path().c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600), "errors"));
  const auto words = command(attempt, confined);
  const pid_t child = checked(::fork(), "fork");
  if (child == 0)
    become(words, confined != Confined::not_, programEnd_->number(), output.number(),
           errors.number());
  Outcome outcome;
  while (::waitpid(child, &outcome.status, 0) < 0) {
    if (errno != EINTR)
      throw std::system_error(errno, std::generic_category(), "wait for the probe");
  }
  const std::string said = contentsOfOpen(output.number());
  if (!said.empty()) outcome.failure = std::stoi(said);
  outcome.errors = contentsOfOpen(errors.number());
  return outcome;
}

std::string Stage::heard() {
  std::array<char, 64> buffer{};
  const ssize_t size = ::recv(hostEnd_->number(), buffer.data(), buffer.size(), MSG_DONTWAIT);
  return {buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(size, 0))};
}

}  // namespace kestrune::sandbox::test
