#include "host/front/InheritedMount.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <system_error>
#include <utility>

#include "host/front/MountPoint.h"

namespace kestrune::host {

namespace {

namespace fs = std::filesystem;
using platform::NSPOSIXError;

constexpr std::string_view kVariable = "KESTRUNE_HANDOVER";
constexpr int kSeals = F_SEAL_WRITE | F_SEAL_GROW | F_SEAL_SHRINK | F_SEAL_SEAL;

void setInherited(int descriptor, bool isInherited) {
  ::fcntl(descriptor, F_SETFD, isInherited ? 0 : FD_CLOEXEC);
}

std::string contentsOf(int file) {
  struct stat status = {};
  if (::fstat(file, &status) != 0) throw NSPOSIXError(errno, "examine the handed-over memory");
  std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
  for (std::size_t got = 0; got < bytes.size();) {
    const ssize_t count =
        ::pread(file, bytes.data() + got, bytes.size() - got, static_cast<off_t>(got));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw NSPOSIXError(errno, "read the handed-over memory");
    got += static_cast<std::size_t>(count);
  }
  return bytes;
}

// A file in memory that nobody can change any more.
std::unique_ptr<Descriptor> sealedMemory(const std::string& bytes) {
  auto memory = std::make_unique<Descriptor>(
      ::memfd_create("kestrune-handover", MFD_CLOEXEC | MFD_ALLOW_SEALING));
  if (memory->number() < 0) throw NSPOSIXError(errno, "make a file in memory");
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t count = ::write(memory->number(), bytes.data() + done, bytes.size() - done);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) throw NSPOSIXError(errno, "write a file in memory");
    done += static_cast<std::size_t>(count);
  }
  if (::fcntl(memory->number(), F_ADD_SEALS, kSeals) != 0)
    throw NSPOSIXError(errno, "seal a file in memory");
  return memory;
}

std::vector<std::string> environmentWith(int memory) {
  const std::string own = std::string(kVariable) + "=";
  std::vector<std::string> variables;
  for (char** at = environ; *at != nullptr; ++at) {
    if (!std::string_view(*at).starts_with(own)) variables.emplace_back(*at);
  }
  variables.push_back(own + std::to_string(memory));
  return variables;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

// Where the shell would have found it.
fs::path findProgram(const std::string& name) {
  if (name.find('/') != std::string::npos) return fs::absolute(name).lexically_normal();
  const char* search = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe)
  std::string_view left = search == nullptr ? "" : search;
  while (!left.empty()) {
    const std::size_t end = std::min(left.find(':'), left.size());
    fs::path tried = fs::absolute(fs::path(left.substr(0, end)) / name).lexically_normal();
    if (::access(tried.c_str(), X_OK) == 0) return tried;
    left.remove_prefix(std::min(end + 1, left.size()));
  }
  return {};
}

}  // namespace

InheritedMount::InheritedMount() {
  const std::string name(kVariable);
  const char* text = std::getenv(name.c_str());  // NOLINT(concurrency-mt-unsafe)
  if (text == nullptr) return;
  const std::string_view digits = text;
  int number = -1;
  const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), number);
  const bool isNumber = parsed.ec == std::errc() && parsed.ptr == digits.data() + digits.size();
  ::unsetenv(name.c_str());  // NOLINT(concurrency-mt-unsafe): no other thread runs
  // Whoever set the variable by hand has no such file.
  if (!isNumber || number < 0 || ::fcntl(number, F_GET_SEALS) != kSeals) return;
  setInherited(number, false);
  memory_ = std::make_unique<Descriptor>(number);
}

Handover InheritedMount::read() const {
  const std::string bytes = contentsOf(memory_->number());
  Handover handover = Handover::parse(bytes);
  setInherited(handover.head.device, false);
  setInherited(handover.replicaLock, false);
  return handover;
}

void InheritedMount::taken() { memory_.reset(); }

void InheritedMount::abandon() noexcept {
  const auto memory = std::exchange(memory_, nullptr);
  if (!memory) return;
  try {
    const Handover::Head head = Handover::parseHead(contentsOf(memory->number()));
    detachMount(head.mountPoint);  // the device goes with the process
    std::fprintf(stderr, "kestrune: '%s' was unmounted.\n", head.mountPoint.c_str());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kestrune: %s\n", error.what());
  }
}

ProgramStart presentProgram(std::vector<std::string> arguments) {
  ProgramStart program;
  std::error_code error;
  program.file = arguments.empty() ? fs::path() : findProgram(arguments.front());
  // The first argument may be anything; but links on the way to the program are kept, so that one that points elsewhere later counts.
  if (!fs::equivalent(program.file, "/proc/self/exe", error)) {
    std::string file = fs::read_symlink("/proc/self/exe", error);
    // Replaced since it was executed.
    if (const auto at = file.rfind(" (deleted)"); at != std::string::npos) file.resize(at);
    program.file = file;
  }
  program.arguments = std::move(arguments);
  return program;
}

platform::NSErrorPtr executeWith(const ProgramStart& program, const Handover& handover) {
  const std::string what = "execute '" + program.file.string() + "'";
  try {
    const auto memory = sealedMemory(handover.encode());
    std::vector<std::string> arguments = program.arguments;
    std::vector<std::string> variables = environmentWith(memory->number());
    const std::vector<char*> argumentPointers = pointersTo(arguments);
    const std::vector<char*> variablePointers = pointersTo(variables);
    if (::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) != 0)
      return NSPOSIXError(errno, "keep descriptors from " + what).share();
    const std::array<int, 3> kept = {memory->number(), handover.head.device, handover.replicaLock};
    for (const int descriptor : kept) setInherited(descriptor, true);
    ::execve(program.file.c_str(), argumentPointers.data(), variablePointers.data());
    const int error = errno;
    for (const int descriptor : kept) setInherited(descriptor, false);
    return NSPOSIXError(error, what).share();
  } catch (const platform::NSError& error) {
    return error.share();
  }
}

}  // namespace kestrune::host
