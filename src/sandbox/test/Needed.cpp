// What the extension needs, and how it may end.
#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <iconv.h>
#include <netdb.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "platform/files/AtomicFile.h"
#include "platform/files/FileHandle.h"
#include "platform/values/NSError.h"
#include "sandbox/test/Attempts.h"

namespace kestrune::sandbox::test {

namespace {

using std::filesystem::path;

int answer(long result) { return result < 0 ? errno : 0; }

/// What throws the platform's error has failed with its errno.
template <class Work>
int tried(Work work) {
  try {
    return work() ? 0 : EPROTO;
  } catch (const platform::NSError& error) {
    return static_cast<int>(error.code());
  } catch (const std::filesystem::filesystem_error& error) {
    return error.code().value();
  }
}

int replaceFiles(const path& directory) {
  return tried([&] {
    const path file = directory / "replaced";
    platform::replaceFile(file, "one", platform::Durability::durable);
    platform::FileReplacer replacer;
    for (const char* contents : {"two", "three", "four"}) replacer.replace(file, contents);
    const bool isRight = platform::readFile(file) == "four";
    replacer.rest();
    std::filesystem::remove(file);
    return isRight;
  });
}

int makeFolders(const path& directory) {
  return tried([&] {
    std::filesystem::create_directories(directory / "a/b");
    auto file = platform::FileHandle::forWritingNew(directory / "a/b/file");
    file.write("contents");
    file.close();
    std::filesystem::rename(directory / "a/b/file", directory / "a/file");
    const std::filesystem::directory_iterator entries(directory / "a");
    const bool isRight = std::distance(begin(entries), end(entries)) == 2;
    return std::filesystem::remove_all(directory / "a") == 3 && isRight;
  });
}

/// Two open files in the temporary directory, gone with their names.
struct TwoFiles {
  explicit TwoFiles(const Surrounds& at) {
    for (int& file : files) {
      const path name = at.temporary / "open";
      file = ::open(name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
      ::unlink(name.c_str());
    }
  }
  std::array<int, 2> files{};
};

int reserveAndCopy(const Surrounds& at) {
  const TwoFiles two(at);
  if (int failure = ::posix_fallocate(two.files[0], 0, 8192)) return failure;
  if (::fallocate(two.files[0], 0, 0, 16384) != 0) return errno;
  if (::copy_file_range(two.files[0], nullptr, two.files[1], nullptr, 16384, 0) < 0) return errno;
  if (::sync_file_range(two.files[1], 0, 0, SYNC_FILE_RANGE_WRITE) != 0) return errno;
  if (::ftruncate(two.files[1], 10) != 0 || ::fdatasync(two.files[1]) != 0) return errno;
  return answer(::fsync(two.files[1]));
}

int lockFiles(const Surrounds& at) {
  const TwoFiles two(at);
  struct flock whole {};
  whole.l_type = F_WRLCK;
  if (::fcntl(two.files[0], F_SETLK, &whole) != 0) return errno;
  if (::fcntl(two.files[0], F_OFD_SETLK, &whole) != 0 && errno != EAGAIN) return errno;
  return answer(::flock(two.files[1], LOCK_EX | LOCK_NB));
}

int mapFile(const Surrounds& at) {
  const TwoFiles two(at);
  constexpr std::size_t kSize = std::size_t{8} << 20U;
  if (::ftruncate(two.files[0], kSize) != 0) return errno;
  void* mapped = ::mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED, two.files[0], 0);
  if (mapped == MAP_FAILED) return errno;
  *static_cast<char*>(mapped) = 'x';
  return answer(::munmap(mapped, kSize));
}

int askFileSystem(const Surrounds& at) {
  struct statx status {};
  if (::statx(AT_FDCWD, at.shared.c_str(), 0, STATX_BASIC_STATS, &status) != 0) return errno;
  return tried([&] {
    return std::filesystem::space(at.temporary).capacity > 0 &&
           std::filesystem::canonical(at.shared / "config.json").has_filename();
  });
}

int readOutgoing(const Surrounds& at) {
  return tried([&] { return platform::readFile(at.outgoing / "7") == "to be sent"; });
}

int readable(const char* file) {
  const int descriptor = ::open(file, O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  char byte = 0;
  const ssize_t count = ::read(descriptor, &byte, 1);
  ::close(descriptor);
  return count == 1 ? 0 : EIO;
}

int connectToPort(const Surrounds& at) {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(at.port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int yes = 1;
  if (::setsockopt(descriptor, SOL_SOCKET, SO_KEEPALIVE, &yes, sizeof yes) != 0) return errno;
  const int result =
      ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address);
  const int failure = result == 0 || errno == EINPROGRESS ? 0 : errno;
  ::close(descriptor);
  return failure;
}

int resolveName(const char* name, int flags, int expected) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = flags;
  addrinfo* found = nullptr;
  const int result = ::getaddrinfo(name, "http", &hints, &found);
  if (found != nullptr) ::freeaddrinfo(found);
  return result == expected ? 0 : EPROTO;
}

int useThreads(const Surrounds&) {
  std::vector<std::thread> threads;
  try {
    for (int i = 0; i < 16; ++i) {
      threads.emplace_back([] {
        ::pthread_setname_np(::pthread_self(), "kestrune.probe");
        std::vector<char> memory(std::size_t{1} << 20U, 'x');
        std::this_thread::yield();
      });
    }
  } catch (const std::system_error& error) {
    for (auto& thread : threads) thread.join();
    return error.code().value();
  }
  for (auto& thread : threads) thread.join();
  return 0;
}

int waitForEvents(const Surrounds&) {
  const int events = ::epoll_create1(EPOLL_CLOEXEC);
  const int counter = ::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);
  const int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC);
  if (events < 0 || counter < 0 || timer < 0) return errno;
  epoll_event event{EPOLLIN, {}};
  if (::epoll_ctl(events, EPOLL_CTL_ADD, counter, &event) != 0) return errno;
  return ::epoll_wait(events, &event, 1, 1000) == 1 ? 0 : EPROTO;
}

int wakeByPair(const Surrounds&) {
  std::array<int, 2> ends{};
  return answer(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()));
}

int talkToHost(const Surrounds&) {
  std::array<char, 4> heard{};
  if (::recv(kSocketDescriptor, heard.data(), heard.size(), MSG_WAITALL) != 4) return errno;
  if (std::string_view(heard.data(), heard.size()) != "ping") return EPROTO;
  return answer(::send(kSocketDescriptor, "pong", 4, MSG_NOSIGNAL));
}

int useDevices(const Surrounds&) {
  const int sink = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  if (sink < 0 || ::write(sink, "x", 1) != 1) return errno;
  std::random_device random;
  static_cast<void>(random());
  return readable("/dev/urandom");
}

int loadLibraries(const Surrounds&) {
  if (::dlopen("libresolv.so.2", RTLD_NOW) == nullptr) return ELIBACC;
  const iconv_t converter = ::iconv_open("ISO-8859-15", "UTF-8");  // loads a library of its own
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  if (converter == reinterpret_cast<iconv_t>(-1)) return errno;
  return answer(::iconv_close(converter));
}

int knowTime(const Surrounds&) {
  ::setenv("TZ", "Europe/Berlin", 1);
  const std::time_t winter = 1767225600;
  std::tm local{};
  return ::localtime_r(&winter, &local) != nullptr && local.tm_gmtoff == 3600 ? 0 : ENOENT;
}

int signalItself(const Surrounds&) {
  if (::kill(::getpid(), SIGURG) != 0) return errno;
  return ::raise(SIGURG) == 0 ? 0 : errno;
}

int endByAbort(const Surrounds&) { std::abort(); }

int endByFault(const Surrounds&) {
  ::signal(SIGSEGV, SIG_DFL);  // not the sanitizers'
  void* closed = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  *static_cast<volatile char*>(closed) = 1;
  return 0;
}

}  // namespace

const std::vector<Attempt>& needed() {
  static const std::vector<Attempt> all = {
      {"ReplaceInShared", [](const Surrounds& at) { return replaceFiles(at.shared); }},
      {"ReplaceInTemporary", [](const Surrounds& at) { return replaceFiles(at.temporary); }},
      {"MakeFoldersInShared", [](const Surrounds& at) { return makeFolders(at.shared); }},
      {"MakeFoldersInTemporary", [](const Surrounds& at) { return makeFolders(at.temporary); }},
      {"ReadOutgoing", &readOutgoing},
      {"ReserveAndCopy", &reserveAndCopy},
      {"LockFiles", &lockFiles},
      {"MapFile", &mapFile},
      {"AskFileSystem", &askFileSystem},
      {"ReadCertificates",
       [](const Surrounds&) { return readable("/etc/ssl/certs/ca-certificates.crt"); }},
      {"ReadMediaTypes", [](const Surrounds&) { return readable("/usr/share/mime/globs2"); }},
      {"ConnectToPort", &connectToPort},
      {"ResolveLocalhost",
       [](const Surrounds&) { return resolveName("localhost", AI_ADDRCONFIG, 0); }},
      {"UseThreads", &useThreads},
      {"WaitForEvents", &waitForEvents},
      {"WakeByPair", &wakeByPair},
      {"TalkToHost", &talkToHost},
      {"UseDevices", &useDevices},
      {"LoadLibraries", &loadLibraries},
      {"KnowTime", &knowTime},
      {"SignalItself", &signalItself},
  };
  return all;
}

const std::vector<Attempt>& crashes() {
  static const std::vector<Attempt> all = {{"Abort", &endByAbort}, {"Fault", &endByFault}};
  return all;
}

}  // namespace kestrune::sandbox::test
