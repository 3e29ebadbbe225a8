// Attempts on other processes, sockets and the kernel. Where they succeed, they leave the machine as it was.
#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <linux/bpf.h>
#include <linux/io_uring.h>
#include <linux/keyctl.h>
#include <linux/perf_event.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>

#include "sandbox/test/Attempts.h"

namespace kestrune::sandbox::test {

namespace {

int answer(long result) { return result < 0 ? errno : 0; }

int connectUnix(const std::string& name, bool isAbstract) {
  const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return errno;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path + (isAbstract ? 1 : 0), name.data(), name.size());
  const auto size = offsetof(sockaddr_un, sun_path) + name.size() + 1;
  const int failure = answer(::connect(descriptor, reinterpret_cast<const sockaddr*>(&address),
                                       static_cast<socklen_t>(size)));
  ::close(descriptor);
  return failure;
}

int makeSocket(int family, int type, int protocol) {
  const int descriptor = ::socket(family, type, protocol);
  if (descriptor < 0) return errno;
  return answer(::close(descriptor));
}

int datagramPair(const Surrounds&) {
  std::array<int, 2> ends{};
  return answer(::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends.data()));
}

int receiveConnections(const Surrounds&) {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0)
    return 0;  // needed for connections: that it is refused is a failure of the test
  const int failure = answer(::listen(descriptor, 1));
  ::close(descriptor);
  return failure;
}

/// The child ends at once. It is not waited for: a refusal of that would pass for one of the child.
int madeProcess(pid_t child) {
  if (child == 0) ::_exit(0);
  return answer(child);
}

int forkByClone(const Surrounds&) {
  return madeProcess(
      static_cast<pid_t>(::syscall(SYS_clone, SIGCHLD, nullptr, nullptr, nullptr, 0)));
}

int forkByClone3(const Surrounds&) {
  std::array<std::uint64_t, 8> arguments{};
  arguments[4] = SIGCHLD;  // exit_signal
  return madeProcess(static_cast<pid_t>(::syscall(SYS_clone3, arguments.data(), sizeof arguments)));
}

/// The shell answers in the probe's stead.
int executeShell(const Surrounds&) {
  return answer(::execl("/bin/sh", "sh", "-c", "echo 0", nullptr));
}

int readHostMemory(const Surrounds& at) {
  std::array<char, 4> copy{};
  const iovec here{copy.data(), copy.size()};
  // NOLINTNEXTLINE(performance-no-int-to-ptr)
  const iovec there{reinterpret_cast<void*>(at.hostMemory), copy.size()};
  return answer(::process_vm_readv(at.host, &here, 1, &there, 1, 0));
}

int ownSignals(const Surrounds& at) {
  const int descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return 0;  // needed
  return answer(::fcntl(descriptor, F_SETOWN, at.host));
}

int ownSignalsOfSocket(const Surrounds& at) {
  const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) return 0;  // needed
  const int owner = at.host;
  return answer(::ioctl(descriptor, FIOSETOWN, &owner));
}

int seeHostProcess(const Surrounds& at) {
  DIR* processes = ::opendir("/proc");
  if (processes == nullptr) return errno;
  const std::string wanted = std::to_string(at.host);
  int failure = ENOENT;
  while (const dirent* entry = ::readdir(processes)) {
    if (wanted == entry->d_name) failure = 0;
  }
  ::closedir(processes);
  return failure;
}

int readEnvironmentOf(const std::string& process) {
  const int descriptor = ::open(("/proc/" + process + "/environ").c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) return errno;
  std::array<char, 65536> variables{};
  const ssize_t size = ::read(descriptor, variables.data(), variables.size());
  if (size < 0) return errno;
  const std::string_view all(variables.data(), static_cast<std::size_t>(size));
  return all.find(std::string(kHostVariable) + "=") != std::string_view::npos ? 0 : ENOENT;
}

int allowCoreDumps(const Surrounds&) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_CORE, &limit) != 0) return 0;  // needed
  if (limit.rlim_max == 0) limit.rlim_max = 1;
  limit.rlim_cur = limit.rlim_max;
  return answer(::setrlimit(RLIMIT_CORE, &limit));
}

int renameMachine(const Surrounds&) {
  std::array<char, 65> name{};
  if (::gethostname(name.data(), name.size() - 1) != 0) return errno;
  return answer(::sethostname(name.data(), std::strlen(name.data())));
}

int mountSomething(const Surrounds& at) {
  const auto place = at.root / "outside";
  if (::mount("none", place.c_str(), "tmpfs", 0, nullptr) != 0) return errno;
  return answer(::umount2(place.c_str(), MNT_DETACH));
}

int shareMemory(const Surrounds&) {
  const int segment = ::shmget(IPC_PRIVATE, 4096, IPC_CREAT | 0600);
  if (segment < 0) return errno;
  return answer(::shmctl(segment, IPC_RMID, nullptr));
}

int makeMap(const Surrounds&) {
  bpf_attr attributes{};
  attributes.map_type = BPF_MAP_TYPE_ARRAY;
  attributes.key_size = 4;
  attributes.value_size = 4;
  attributes.max_entries = 1;
  return answer(::syscall(SYS_bpf, BPF_MAP_CREATE, &attributes, sizeof attributes));
}

int makeRing(const Surrounds&) {
  io_uring_params parameters{};
  return answer(::syscall(SYS_io_uring_setup, 1, &parameters));
}

int countEvents(const Surrounds&) {
  perf_event_attr attributes{};
  attributes.size = sizeof attributes;
  attributes.type = PERF_TYPE_SOFTWARE;
  attributes.config = PERF_COUNT_SW_TASK_CLOCK;
  return answer(::syscall(SYS_perf_event_open, &attributes, 0, -1, -1, 0));
}

}  // namespace

const std::vector<Attempt>& forbiddenWithOthers() {
  static const std::vector<Attempt> all = {
      {"ConnectToControlSocket",
       [](const Surrounds& at) { return connectUnix((at.root / "control.sock").string(), false); }},
      {"ConnectToAbstractSocket",
       [](const Surrounds& at) { return connectUnix(at.abstractSocket, true); }},
      {"MakeUnixDatagramSocket",
       [](const Surrounds&) { return makeSocket(AF_UNIX, SOCK_DGRAM, 0); }},
      {"MakeUnixDatagramPair", &datagramPair},
      {"MakeRawSocket",
       [](const Surrounds&) { return makeSocket(AF_INET, SOCK_RAW, IPPROTO_ICMP); }},
      {"MakePacketSocket", [](const Surrounds&) { return makeSocket(AF_PACKET, SOCK_RAW, 0); }},
      {"MakeAuditSocket", [](const Surrounds&) { return makeSocket(AF_NETLINK, SOCK_RAW, 9); }},
      {"ReceiveConnections", &receiveConnections},
      {"ExecuteShell", &executeShell},
      {"Fork", [](const Surrounds&) { return madeProcess(::fork()); }},
      {"ForkByClone", &forkByClone},
      {"ForkByClone3", &forkByClone3},
      {"TraceHost",
       [](const Surrounds& at) {
         return answer(::ptrace(PTRACE_SEIZE, at.host, nullptr, nullptr));
       }},
      {"ReadHostMemory", &readHostMemory},
      {"SignalHost", [](const Surrounds& at) { return answer(::kill(at.host, SIGURG)); }},
      {"SignalParent", [](const Surrounds&) { return answer(::kill(::getppid(), SIGURG)); }},
      {"SignalThreadOfHost",
       [](const Surrounds& at) { return answer(::syscall(SYS_tgkill, at.host, at.host, SIGURG)); }},
      {"SignalHostByDescriptor", &ownSignals},
      {"SignalHostBySocket", &ownSignalsOfSocket},
      {"OpenHostProcess",
       [](const Surrounds& at) { return answer(::syscall(SYS_pidfd_open, at.host, 0)); }},
      {"SeeHostProcess", &seeHostProcess},
      {"ReadHostEnvironment",
       [](const Surrounds& at) { return readEnvironmentOf(std::to_string(at.host)); }},
      {"ReadFirstProcessEnvironment",
       [](const Surrounds& at) {
         return ::getpid() == 2 ? readEnvironmentOf("1")
                                : readEnvironmentOf(std::to_string(at.host));
       }},
      {"ReadHostVariable",
       [](const Surrounds&) { return std::getenv(kHostVariable) != nullptr ? 0 : ENOENT; }},
      {"UseForeignDescriptor",
       [](const Surrounds&) {
         char byte = 0;
         return answer(::read(kForeignDescriptor, &byte, 1));
       }},
  };
  return all;
}

const std::vector<Attempt>& forbiddenWithKernel() {
  static const std::vector<Attempt> all = {
      {"BecomeTraceable", [](const Surrounds&) { return answer(::prctl(PR_SET_DUMPABLE, 1)); }},
      {"LeaveCoreDump", &allowCoreDumps},
      {"RenameMachine", &renameMachine},
      {"Mount", &mountSomething},
      {"ChangeRoot", [](const Surrounds& at) { return answer(::chroot(at.shared.c_str())); }},
      {"MakeUserNamespace", [](const Surrounds&) { return answer(::unshare(CLONE_NEWUSER)); }},
      {"MakeMountNamespace", [](const Surrounds&) { return answer(::unshare(CLONE_NEWNS)); }},
      {"ShareMemory", &shareMemory},
      {"UseKeyring",
       [](const Surrounds&) {
         return answer(::syscall(SYS_keyctl, KEYCTL_GET_KEYRING_ID, KEY_SPEC_PROCESS_KEYRING, 1));
       }},
      {"MakeBPFMap", &makeMap},
      {"MakeRing", &makeRing},
      {"HandlePageFaults",
       [](const Surrounds&) { return answer(::syscall(SYS_userfaultfd, O_CLOEXEC | 1)); }},
      {"CountEvents", &countEvents},
      {"MakeMemoryFile",
       [](const Surrounds&) { return answer(::syscall(SYS_memfd_create, "attempt", 0)); }},
      {"ChangePersonality",
       [](const Surrounds&) { return answer(::personality(ADDR_NO_RANDOMIZE)); }},
  };
  return all;
}

}  // namespace kestrune::sandbox::test
