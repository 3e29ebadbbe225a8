#include "host/Interruption.h"

#include <signal.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <map>
#include <optional>
#include <string>

namespace kestrune::host {

namespace {

std::string placeOf(pid_t thread, const char* file) {
  return "/proc/" + std::to_string(thread) + "/" + file;
}

constexpr std::uint64_t bitOf(int signal) { return 1ULL << (static_cast<unsigned>(signal) - 1U); }

// What these do by default does not end a program (signal(7)).
constexpr std::uint64_t kHarmless = bitOf(SIGCHLD) | bitOf(SIGCONT) | bitOf(SIGURG) |
                                    bitOf(SIGWINCH) | bitOf(SIGSTOP) | bitOf(SIGTSTP) |
                                    bitOf(SIGTTIN) | bitOf(SIGTTOU);

// Whether a signal waits for the thread that it does not block, ignore or handle, and that will end it. A thread that has
// another signal waiting is not woken for it, not even from a wait that can be killed.
bool isBeingKilled(pid_t thread) {
  std::ifstream status(placeOf(thread, "status"));
  std::map<std::string, std::uint64_t> sets;
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("Sig", 0) != 0 && line.rfind("ShdPnd", 0) != 0) continue;
    const std::size_t colon = line.find(":\t");
    if (colon == std::string::npos) continue;
    std::uint64_t set = 0;
    std::from_chars(line.data() + colon + 2, line.data() + line.size(), set, 16);
    sets[line.substr(0, colon)] = set;
  }
  if (sets.empty()) return true;  // it is gone
  const std::uint64_t pending = sets["SigPnd"] | sets["ShdPnd"];
  return (pending & ~sets["SigBlk"] & ~sets["SigIgn"] & ~sets["SigCgt"] & ~kHarmless) != 0;
}

// The number of the system call in which the thread waits, -1 if it is in none (proc_pid_syscall(5)).
std::optional<long> systemCallOf(pid_t thread) {
  std::ifstream file(placeOf(thread, "syscall"));
  long number = 0;
  if (!(file >> number)) return std::nullopt;
  return number;
}

bool reads(long systemCall) {
  constexpr std::array kReading = {SYS_read,    SYS_readv,    SYS_pread64, SYS_preadv,
                                   SYS_preadv2, SYS_sendfile, SYS_splice,  SYS_copy_file_range};
  return std::find(kReading.begin(), kReading.end(), systemCall) != kReading.end();
}

}  // namespace

bool signalEndsRead(pid_t thread) {
  const auto systemCall = systemCallOf(thread);
  return !systemCall || reads(*systemCall) || isBeingKilled(thread);
}

}  // namespace kestrune::host
