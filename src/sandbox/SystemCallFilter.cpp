#include "sandbox/SystemCallFilter.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <seccomp.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <memory>
#include <vector>

#include "platform/values/NSError.h"

namespace kestrune::sandbox {

namespace {

// Whatever their arguments are.
constexpr std::array kAllowed = {
    // files, at places that Landlock allows
    SCMP_SYS(access), SCMP_SYS(close), SCMP_SYS(close_range), SCMP_SYS(copy_file_range),
    SCMP_SYS(creat), SCMP_SYS(dup), SCMP_SYS(dup2), SCMP_SYS(dup3), SCMP_SYS(faccessat),
    SCMP_SYS(faccessat2), SCMP_SYS(fadvise64), SCMP_SYS(fallocate), SCMP_SYS(fdatasync),
    SCMP_SYS(flock), SCMP_SYS(fstat), SCMP_SYS(fstatfs), SCMP_SYS(fsync), SCMP_SYS(ftruncate),
    SCMP_SYS(getcwd), SCMP_SYS(getdents64), SCMP_SYS(lseek), SCMP_SYS(lstat), SCMP_SYS(mkdir),
    SCMP_SYS(mkdirat), SCMP_SYS(newfstatat), SCMP_SYS(open), SCMP_SYS(openat), SCMP_SYS(openat2),
    SCMP_SYS(pread64), SCMP_SYS(preadv), SCMP_SYS(preadv2), SCMP_SYS(pwrite64), SCMP_SYS(pwritev),
    SCMP_SYS(pwritev2), SCMP_SYS(read), SCMP_SYS(readahead), SCMP_SYS(readlink),
    SCMP_SYS(readlinkat), SCMP_SYS(readv), SCMP_SYS(rename), SCMP_SYS(renameat),
    SCMP_SYS(renameat2), SCMP_SYS(rmdir), SCMP_SYS(sendfile), SCMP_SYS(stat), SCMP_SYS(statfs),
    SCMP_SYS(statx), SCMP_SYS(sync_file_range), SCMP_SYS(umask), SCMP_SYS(unlink),
    SCMP_SYS(unlinkat), SCMP_SYS(write), SCMP_SYS(writev),
    // memory
    SCMP_SYS(brk), SCMP_SYS(madvise), SCMP_SYS(membarrier), SCMP_SYS(mmap), SCMP_SYS(mprotect),
    SCMP_SYS(mremap), SCMP_SYS(msync), SCMP_SYS(munmap),
    // its own threads, signals and end
    SCMP_SYS(exit), SCMP_SYS(exit_group), SCMP_SYS(futex), SCMP_SYS(getcpu), SCMP_SYS(getegid),
    SCMP_SYS(geteuid), SCMP_SYS(getgid), SCMP_SYS(getpid), SCMP_SYS(getppid), SCMP_SYS(getrandom),
    SCMP_SYS(getresgid), SCMP_SYS(getresuid), SCMP_SYS(getrusage), SCMP_SYS(gettid),
    SCMP_SYS(getuid), SCMP_SYS(restart_syscall), SCMP_SYS(rseq), SCMP_SYS(rt_sigaction),
    SCMP_SYS(rt_sigpending), SCMP_SYS(rt_sigprocmask), SCMP_SYS(rt_sigreturn),
    SCMP_SYS(rt_sigsuspend), SCMP_SYS(rt_sigtimedwait), SCMP_SYS(sched_getaffinity),
    SCMP_SYS(sched_yield), SCMP_SYS(set_robust_list), SCMP_SYS(set_tid_address),
    SCMP_SYS(sigaltstack), SCMP_SYS(sysinfo), SCMP_SYS(times), SCMP_SYS(uname),
    // time
    SCMP_SYS(clock_getres), SCMP_SYS(clock_gettime), SCMP_SYS(clock_nanosleep),
    SCMP_SYS(gettimeofday), SCMP_SYS(nanosleep), SCMP_SYS(time),
    // waiting
    SCMP_SYS(epoll_create), SCMP_SYS(epoll_create1), SCMP_SYS(epoll_ctl), SCMP_SYS(epoll_pwait),
    SCMP_SYS(epoll_pwait2), SCMP_SYS(epoll_wait), SCMP_SYS(eventfd), SCMP_SYS(eventfd2),
    SCMP_SYS(pipe), SCMP_SYS(pipe2), SCMP_SYS(poll), SCMP_SYS(ppoll), SCMP_SYS(pselect6),
    SCMP_SYS(select), SCMP_SYS(signalfd4), SCMP_SYS(timerfd_create), SCMP_SYS(timerfd_gettime),
    SCMP_SYS(timerfd_settime),
    // sockets, of the kinds below; none that others can connect to. The resolver binds its routing socket.
    SCMP_SYS(bind), SCMP_SYS(connect), SCMP_SYS(getpeername), SCMP_SYS(getsockname),
    SCMP_SYS(getsockopt), SCMP_SYS(recvfrom), SCMP_SYS(recvmmsg), SCMP_SYS(recvmsg),
    SCMP_SYS(sendmmsg), SCMP_SYS(sendmsg), SCMP_SYS(sendto), SCMP_SYS(setsockopt),
    SCMP_SYS(shutdown)};

// fcntl: descriptors, locks of files, the lease by which FileReplacer finds out whether it is alone, and whether memory that
// the host shares can be cut short. No F_SETOWN: it sends signals to others.
constexpr std::array kDescriptorCommands = {F_DUPFD,    F_DUPFD_CLOEXEC, F_GETFD,     F_SETFD,
                                            F_GETFL,    F_SETFL,         F_GETLK,     F_SETLK,
                                            F_SETLKW,   F_OFD_GETLK,     F_OFD_SETLK, F_OFD_SETLKW,
                                            F_GETLEASE, F_SETLEASE,      F_GET_SEALS};

// What the C library asks of any stream, and libraries of sockets. None of devices.
constexpr std::array<unsigned long, 5> kControls = {TCGETS, FIONBIO, FIONREAD, FIOCLEX, FIONCLEX};

// Names of threads and, of newer C libraries, of memory.
constexpr std::array kProcessSettings = {PR_SET_NAME, PR_GET_NAME, PR_SET_VMA};

constexpr unsigned kSocketFlags = SOCK_CLOEXEC | SOCK_NONBLOCK;

/// What an argument must be; the kernel reads these as 32 bits and takes no notice of the others.
scmp_arg_cmp is(unsigned position, std::uint64_t value, std::uint64_t ofBits = 0xffffffffU) {
  return {position, SCMP_CMP_MASKED_EQ, ofBits, value};
}

void require(int result, const char* what) {
  if (result < 0) throw platform::NSPOSIXError(-result, what);
}

class Filter {
 public:
  Filter() : context_(seccomp_init(SCMP_ACT_ERRNO(EPERM)), &seccomp_release) {
    if (!context_) throw platform::NSPOSIXError(ENOMEM, "make a filter of system calls");
    require(seccomp_attr_set(context_.get(), SCMP_FLTATR_CTL_TSYNC, 1),
            "filter the system calls of all threads");
    // Calls of another architecture, which nothing of ours makes.
    require(seccomp_attr_set(context_.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS),
            "filter foreign system calls");
  }

  void allow(int call, const std::vector<scmp_arg_cmp>& where = {}) {
    add(SCMP_ACT_ALLOW, call, where);
  }

  /// As on a kernel that does not have it.
  void deny(int call) { add(SCMP_ACT_ERRNO(ENOSYS), call, {}); }

  void load() { require(seccomp_load(context_.get()), "filter system calls"); }

 private:
  void add(std::uint32_t action, int call, const std::vector<scmp_arg_cmp>& where) {
    const int result = seccomp_rule_add_array(context_.get(), action, call,
                                              static_cast<unsigned>(where.size()), where.data());
    // EDOM: this architecture has another call instead.
    if (result != -EDOM) require(result, "add to the filter of system calls");
  }

  std::unique_ptr<void, decltype(&seccomp_release)> context_;
};

/// Threads, but no processes and no new name spaces.
void allowThreads(Filter& filter) {
  constexpr auto kForbidden =
      static_cast<unsigned>(CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC |
                            CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET);
  filter.allow(SCMP_SYS(clone), {is(0, CLONE_THREAD, CLONE_THREAD | kForbidden)});
  // Its flags lie in memory, where no filter sees them. The C library then uses clone.
  filter.deny(SCMP_SYS(clone3));
}

void allowSignalsToItself(Filter& filter) {
  const auto self = static_cast<std::uint64_t>(::getpid());
  filter.allow(SCMP_SYS(tgkill), {is(0, self)});
  filter.allow(SCMP_SYS(kill), {is(0, self)});
}

void allowSockets(Filter& filter) {
  constexpr std::uint64_t kType = 0xffffffffU & ~kSocketFlags;
  for (const int family : {AF_INET, AF_INET6}) {
    for (const int protocol : {0, static_cast<int>(IPPROTO_TCP)}) {
      filter.allow(SCMP_SYS(socket),
                   {is(0, static_cast<unsigned>(family)), is(1, SOCK_STREAM, kType),
                    is(2, static_cast<unsigned>(protocol))});
    }
    for (const int protocol : {0, static_cast<int>(IPPROTO_UDP)}) {
      filter.allow(SCMP_SYS(socket),
                   {is(0, static_cast<unsigned>(family)), is(1, SOCK_DGRAM, kType),
                    is(2, static_cast<unsigned>(protocol))});
    }
  }
  // Which addresses this machine has (getaddrinfo); NETLINK_ROUTE is protocol 0.
  filter.allow(SCMP_SYS(socket), {is(0, AF_NETLINK), is(1, SOCK_RAW, kType), is(2, 0)});
  // libcurl wakes its own thread so. Not of datagrams: such an end can send to any socket in the file system.
  filter.allow(SCMP_SYS(socketpair), {is(0, AF_UNIX), is(1, SOCK_STREAM, kType), is(2, 0)});
}

void allowLimitsOfItself(Filter& filter) { filter.allow(SCMP_SYS(prlimit64), {is(0, 0)}); }

void allowDescriptorsAndSettings(Filter& filter) {
  for (const int command : kDescriptorCommands)
    filter.allow(SCMP_SYS(fcntl), {is(1, static_cast<unsigned>(command))});
  filter.allow(SCMP_SYS(fcntl), {is(1, F_SETSIG), is(2, SIGURG)});
  for (const unsigned long control : kControls) filter.allow(SCMP_SYS(ioctl), {is(1, control)});
  for (const int setting : kProcessSettings)
    filter.allow(SCMP_SYS(prctl), {is(0, static_cast<unsigned>(setting))});
  // The mode of private files, and nothing wider.
  filter.allow(SCMP_SYS(fchmod), {is(1, 0600)});
}

}  // namespace

void applySystemCallFilter() {
  Filter filter;
  for (const int call : kAllowed) filter.allow(call);
  allowThreads(filter);
  allowSignalsToItself(filter);
  allowSockets(filter);
  allowLimitsOfItself(filter);
  allowDescriptorsAndSettings(filter);
  filter.load();
}

}  // namespace kestrune::sandbox
