#include "tests/mount/LiveMount.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "tests/support/Waiting.h"

namespace kestrune::mounttest {

namespace {

namespace fs = std::filesystem;
using support::contentsOf;
using support::waitUntil;

std::string program(const char* name) { return std::string(KESTRUNE_BIN_DIR) + "/" + name; }

void endChild(std::unique_ptr<Child>& child, int signal) {
  child->signal(signal);
  if (!child->waitForEnd()) throw std::runtime_error("a program did not end");
  child.reset();
}

std::string bytesOf(const fs::path& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  std::string bytes;
  std::array<char, 65536> buffer{};
  ssize_t count = file;
  while (count >= 0 && (count = ::read(file, buffer.data(), buffer.size())) > 0)
    bytes.append(buffer.data(), static_cast<std::size_t>(count));
  const int error = errno;
  if (file >= 0) ::close(file);
  if (count < 0) throw std::system_error(error, std::generic_category(), path);
  return bytes;
}

}  // namespace

std::map<std::string, std::string> snapshotOf(const fs::path& folder) {
  std::map<std::string, std::string> found;
  for (const auto& entry : fs::recursive_directory_iterator(folder)) {
    const std::string name = entry.path().lexically_relative(folder);
    const auto status = entry.symlink_status();
    if (fs::is_directory(status)) {
      found[name + "/"] = "";
    } else if (fs::is_regular_file(status)) {
      found[name] = bytesOf(entry.path());
    }
  }
  return found;
}

std::string differences(const std::map<std::string, std::string>& expected,
                        const std::map<std::string, std::string>& found) {
  std::string text;
  int lines = 0;
  const auto say = [&](const std::string& line) {
    if (++lines <= 10) text += line + "\n";
  };
  for (const auto& [name, contents] : expected) {
    const auto at = found.find(name);
    if (at == found.end()) {
      say("missing: " + name);
    } else if (at->second != contents) {
      say("differs: " + name + " has " + std::to_string(at->second.size()) + " bytes instead of " +
          std::to_string(contents.size()));
    }
  }
  for (const auto& [name, contents] : found) {
    if (!expected.contains(name)) say("too much: " + name);
  }
  return text;
}

CommandResult runIn(const fs::path& folder, const std::string& script) {
  const support::TemporaryDirectory own;
  const fs::path output = own.path() / "output";
  const fs::path commands = own.write("script", script);
  Child shell(
      {"timeout", "60", "bash", "-c",
       "cd \"$1\" && HOME=\"$2\" LC_ALL=C.UTF-8 exec bash -e \"$3\" >\"$4\" 2>&1 </dev/null",
       "bash", folder, own.path(), commands, output});
  const auto status = shell.waitForEnd(std::chrono::seconds(70));
  CommandResult result;
  if (status && WIFEXITED(*status)) result.status = WEXITSTATUS(*status);
  if (fs::exists(output)) result.output = contentsOf(output);
  return result;
}

LiveService::LiveService() {
  fs::create_directory(root());
  directory_.write("token", "live-mount-token");
  fs::permissions(tokenFile(), fs::perms::owner_read);
  start();
}

void LiveService::start() {
  const std::string listen =
      address_.empty() ? "127.0.0.1:0" : address_.substr(address_.rfind('/') + 1);
  program_ = std::make_unique<Child>(std::vector<std::string>{
      program("kestrune-service"), "--root", root(), "--staging", directory_.path() / "staging",
      "--listen", listen, "--token-file", tokenFile()});
  const std::string line = program_->readLine();
  const auto at = line.find("http://");
  if (at == std::string::npos) throw std::runtime_error("the service says: " + line);
  address_ = line.substr(at);
}

void LiveService::end(int signal) { endChild(program_, signal); }

CommandResult LiveService::call(const std::string& method, const std::string& target,
                                const std::string& body) {
  return runIn(directory_.path(),
               "curl -sSf -X " + method + " -H \"Authorization: Bearer $(cat token)\" " +
                   (body.empty() ? "" : "-d '" + body + "' ") + "'" + address_ + target + "'");
}

LiveMount::LiveMount(const LiveService& service)
    : mountPoint_(directory_.path() / "mount point"),
      programFile_(program("kestrune")),
      runtimeDirectory_(directory_.path() / "tmp") {
  fs::create_directory(mountPoint_);
  fs::create_directory(directory_.path() / "data");
  fs::create_directory(directory_.path() / "tmp");
  auto arguments = withEnvironment("configure");
  arguments.insert(arguments.end(),
                   {"--url", service.address(), "--token-file", service.tokenFile()});
  Child configure(arguments);
  const auto status = configure.waitForEnd();
  if (!status || *status != 0) throw std::runtime_error("kestrune configure failed");
  start();
}

LiveMount::~LiveMount() {
  program_.reset();
  ::umount2(mountPoint_.c_str(), MNT_DETACH);
}

std::vector<std::string> LiveMount::withEnvironment(const std::string& command) const {
  return {"env",
          "XDG_DATA_HOME=" + (directory_.path() / "data").string(),
          "XDG_RUNTIME_DIR=" + runtimeDirectory_.string(),
          "TMPDIR=" + (directory_.path() / "tmp").string(),
          "bash",
          "-c",
          "log=$1; shift; exec \"$@\" 2>>\"$log\"",
          "bash",
          logFile(),
          programFile_,
          command};
}

bool LiveMount::isServed() const {
  // Not `stat`: the kernel remembers that of a dead mount's folder.
  struct statfs status = {};
  return ::statfs(mountPoint_.c_str(), &status) == 0 && status.f_type == FUSE_SUPER_MAGIC;
}

void LiveMount::start() {
  auto arguments = withEnvironment("mount");
  arguments.insert(arguments.end(), {"--replica", replica(), mountPoint_.string()});
  program_ = std::make_unique<Child>(arguments);
  if (waitUntil([this] { return isServed(); }, std::chrono::seconds(20))) return;
  program_.reset();
  throw std::runtime_error("the folder was not mounted: " + contentsOf(logFile()));
}

void LiveMount::end(int signal) { endChild(program_, signal); }

namespace {

// Empty where it is gone, as processes are.
std::string lineOf(const fs::path& file) {
  std::ifstream input(file);
  std::string line;
  std::getline(input, line);
  return line;
}

}  // namespace

int LiveMount::extension() const {
  for (const auto& entry : fs::directory_iterator("/proc")) {
    if (lineOf(entry.path() / "comm") != "kestrune-filepr") continue;
    const std::string words = lineOf(entry.path() / "cmdline");
    if (words.find(directory_.path().string()) != std::string::npos)
      return std::stoi(entry.path().filename());
  }
  return 0;
}

CommandResult LiveMount::control(const std::string& words) const {
  return runIn(mountPoint_, "export XDG_DATA_HOME='" + (directory_.path() / "data").string() +
                                "' XDG_RUNTIME_DIR='" + runtimeDirectory_.string() + "'; '" +
                                program("kestrune") + "' " + words);
}

std::string waitUntilSent(const LiveService& service, const LiveMount& mount,
                          std::chrono::seconds deadline) {
  std::string difference;
  const bool same = waitUntil(
      [&] {
        try {
          difference = differences(snapshotOf(mount.mountPoint()), snapshotOf(service.root()));
        } catch (const std::exception& error) {
          difference = error.what();  // something went while it was looked at
        }
        return difference.empty();
      },
      deadline);
  return same ? "" : difference;
}

}  // namespace kestrune::mounttest
