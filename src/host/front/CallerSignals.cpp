#include "host/front/CallerSignals.h"

#include <signal.h>

#include <charconv>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>

#include "platform/files/AtomicFile.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

using Signals = std::uint64_t;

constexpr Signals maskOf(std::initializer_list<int> signals) {
  Signals mask = 0;
  for (const int signal : signals) mask |= Signals{1} << static_cast<unsigned>(signal - 1);
  return mask;
}

// Whoever handles one of these does so after the call as well.
constexpr Signals kCanWait =
    maskOf({SIGCHLD, SIGCONT, SIGURG, SIGWINCH, SIGPROF, SIGVTALRM, SIGSTOP});
// These stop a thread that does not handle them.
constexpr Signals kStops = maskOf({SIGTSTP, SIGTTIN, SIGTTOU});

// A line like "SigPnd:\t0000000000000100".
std::optional<Signals> fieldOf(std::string_view status, std::string_view name) {
  const auto at = status.find(name);
  if (at == std::string_view::npos) return std::nullopt;
  const auto digits = status.substr(at + name.size());
  const auto first = digits.find_first_not_of(" \t");
  if (first == std::string_view::npos) return std::nullopt;
  Signals mask = 0;
  const auto end = std::from_chars(digits.data() + first, digits.data() + digits.size(), mask, 16);
  if (end.ec != std::errc()) return std::nullopt;
  return mask;
}

}  // namespace

bool endsCall(std::string_view status) {
  const auto ofThread = fieldOf(status, "\nSigPnd:");
  const auto ofProcess = fieldOf(status, "\nShdPnd:");
  const auto blocked = fieldOf(status, "\nSigBlk:");
  const auto ignored = fieldOf(status, "\nSigIgn:");
  const auto caught = fieldOf(status, "\nSigCgt:");
  if (!ofThread || !ofProcess || !blocked || !ignored || !caught) return true;
  const Signals pending = (*ofThread | *ofProcess) & ~*blocked & ~*ignored;
  return (pending & ~kCanWait & ~(kStops & ~*caught)) != 0;
}

bool signalEndsCallOf(pid_t thread) {
  try {
    return endsCall(platform::readFile("/proc/" + std::to_string(thread) + "/status"));
  } catch (const platform::NSError&) {
    return true;
  }
}

}  // namespace kestrune::host
