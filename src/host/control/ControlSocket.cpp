#include "host/control/ControlSocket.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <system_error>

#include "platform/values/NSError.h"

namespace kestrune::host {

namespace fs = std::filesystem;
using platform::NSPOSIXError;

namespace {

using DescriptorPtr = std::unique_ptr<Descriptor>;

constexpr mode_t kOthersBits = 077;
constexpr int kWaitingConnections = 64;

[[noreturn]] void fail(int errorNumber, const fs::path& file, const std::string& why = {}) {
  throw NSPOSIXError(errorNumber, "listen at '" + file.string() + "'" + why);
}

DescriptorPtr privateFolder(const fs::path& file) {
  const fs::path folder = file.parent_path();
  std::error_code error;
  fs::create_directories(folder.parent_path(), error);  // what is wrong shows below
  if (::mkdir(folder.c_str(), S_IRWXU) != 0 && errno != EEXIST) fail(errno, file);
  auto opened = std::make_unique<Descriptor>(
      ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (opened->number() < 0) fail(errno, file);
  struct stat status = {};
  if (::fstat(opened->number(), &status) != 0) fail(errno, file);
  if (status.st_uid != ::geteuid()) fail(EPERM, file, ", whose folder belongs to another user");
  if ((status.st_mode & kOthersBits) != 0 && ::fchmod(opened->number(), S_IRWXU) != 0)
    fail(errno, file);
  return opened;
}

DescriptorPtr lockBeside(int folder, const fs::path& file) {
  const std::string name = file.filename().string() + ".lock";
  auto lock = std::make_unique<Descriptor>(
      ::openat(folder, name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (lock->number() < 0) fail(errno, file);
  if (::flock(lock->number(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) fail(errno, file);
    fail(EADDRINUSE, file, ", where another running host of this domain listens");
  }
  return lock;
}

void removeStale(int folder, const std::string& name, const fs::path& file) {
  struct stat status = {};
  if (::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    if (errno == ENOENT) return;
    fail(errno, file);
  }
  if (!S_ISSOCK(status.st_mode)) fail(EEXIST, file, ", where something else lies");
  if (::unlinkat(folder, name.c_str(), 0) != 0) fail(errno, file);
}

// An address has room for 107 bytes, a path for 4,095: the folder is named by its descriptor.
sockaddr_un addressIn(int folder, const std::string& name, const fs::path& file) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(folder) + "/" + name;
  if (path.size() >= sizeof(address.sun_path)) {
    throw NSPOSIXError(ENAMETOOLONG, "name a socket '" + file.string() + "'");
  }
  std::memcpy(&address.sun_path[0], path.c_str(), path.size() + 1);
  return address;
}

DescriptorPtr newSocket(int flags) {
  auto made =
      std::make_unique<Descriptor>(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
  if (made->number() < 0) throw NSPOSIXError(errno, "make a socket");
  return made;
}

DescriptorPtr listening(int folder, const std::string& name, const fs::path& file) {
  const sockaddr_un address = addressIn(folder, name, file);
  auto made = newSocket(SOCK_NONBLOCK);
  // Linux gives the name the mode that the socket has when it is bound.
  if (::fchmod(made->number(), S_IRUSR | S_IWUSR) != 0) fail(errno, file);
  if (::bind(made->number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
    fail(errno, file);
  if (::listen(made->number(), kWaitingConnections) != 0) fail(errno, file);
  return made;
}

bool isPermitted(int connection) {
  ucred peer = {};
  socklen_t length = sizeof(peer);
  if (::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
  return peer.uid == ::geteuid() || peer.uid == 0;
}

}  // namespace

ControlSocket::ControlSocket(const fs::path& file)
    : name_(file.filename().string()),
      folder_(privateFolder(file)),
      lock_(lockBeside(folder_->number(), file)),
      socket_((removeStale(folder_->number(), name_, file),
               listening(folder_->number(), name_, file))) {}

ControlSocket::~ControlSocket() { ::unlinkat(folder_->number(), name_.c_str(), 0); }

ControlSocket::Accepted ControlSocket::accept() const {
  Accepted accepted;
  const int number = ::accept4(socket_->number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (number < 0) {
    accepted.isExhausted =
        errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
    return accepted;
  }
  accepted.connection = std::make_unique<Descriptor>(number);
  accepted.isPermitted = isPermitted(number);
  return accepted;
}

DescriptorPtr ControlSocket::connect(const fs::path& file) {
  const std::string what = "connect to '" + file.string() + "'";
  const Descriptor folder(::open(file.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (folder.number() < 0) throw NSPOSIXError(errno, what);
  const sockaddr_un address = addressIn(folder.number(), file.filename().string(), file);
  auto made = newSocket(0);
  while (::connect(made->number(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
         0) {
    if (errno != EINTR) throw NSPOSIXError(errno, what);
  }
  return made;
}

}  // namespace kestrune::host
