#include "companion/watch/WatchCommand.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "companion/configuration/CommandError.h"
#include "companion/terminal/Signals.h"
#include "companion/watch/StatusRecord.h"
#include "companion/watch/WatchText.h"
#include "host/control/ControlClient.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace {

using host::ControlClient;
using host::ControlRequest;

constexpr std::chrono::milliseconds kInterval{500};
constexpr std::chrono::seconds kPatience{5};
constexpr std::size_t kMostPending = 50;

/// Asks the host, and reads the status file.
class Watched {
 public:
  Watched(const HostFinder& finder, const WatchOptions& options)
      : finder_(finder), options_(options), client_(connect()) {}

  WatchFacts look() {
    WatchFacts facts;
    try {
      if (!client_) client_ = connect();
      facts.status = ask(ControlRequest::Op::status);
      facts.pending = ask(ControlRequest::Op::pending);
      facts.transfers = presentTransfers();
    } catch (const CommandError&) {
      return {};
    } catch (const host::ControlRefusal&) {  // it is ending
      client_ = nullptr;
      return {};
    } catch (const platform::NSError&) {
      client_ = nullptr;
      return {};
    }
    return facts;
  }

 private:
  platform::Json ask(ControlRequest::Op op) {
    ControlRequest request;
    request.op = op;
    request.most = kMostPending;
    return client_->ask(request, nullptr, kPatience);
  }

  std::unique_ptr<ControlClient> connect() const {
    return finder_.of(options_.path, options_.domainIdentifier);
  }

  const HostFinder& finder_;
  const WatchOptions& options_;
  std::unique_ptr<ControlClient> client_;
};

/// Where what is seen is told.
class Teller {
 public:
  explicit Teller(bool asJson)
      : asJson_(asJson),
        isPage_(!asJson && Screen::isPossible(STDOUT_FILENO)),
        withColor_(std::getenv("NO_COLOR") == nullptr),
        screen_(STDOUT_FILENO, STDIN_FILENO) {
    if (isPage_) screen_.enter();
  }
  bool isPage() const { return isPage_; }

  void tell(WatchFacts facts) {
    rates_.saw(facts.transfers, TransferRates::Clock::now());
    facts_ = std::move(facts);
    if (isPage_) return redraw();
    if (asJson_) {
      const std::string line = platform::encodeJson(watchJson(facts_));
      if (line != lastJson_) std::cout << line << "\n";
      lastJson_ = line;
    } else {
      tellLines();
    }
    std::cout.flush();
    if (!std::cout) throw CommandError("Cannot write to standard output.");
  }
  void redraw() { screen_.draw(watchPage(facts_, rates_, screen_.size(), withColor_)); }
  /// As for any program that is put aside; the terminal is the shell's meanwhile.
  void putAside() {
    if (isPage_) screen_.leave();
    ::kill(::getpid(), SIGSTOP);
    if (!isPage_) return;
    screen_.enter();
    redraw();
  }

 private:
  void tellLines() {
    std::set<std::string> now;
    for (const std::string& line : watchLines(facts_, Escaping::forTerminal)) {
      if (!before_.contains(line) && now.insert(line).second)
        std::cout << platform::formatISO8601(platform::dateNow()) << " " << line << "\n";
      now.insert(line);
    }
    for (const std::string& line : before_) {
      const bool endsSometime = line.starts_with("upload of ") ||
                                line.starts_with("download of ") ||
                                line.starts_with("conflict at ");
      if (endsSometime && !now.contains(line))
        std::cout << platform::formatISO8601(platform::dateNow()) << " ended: " << line << "\n";
    }
    before_ = std::move(now);
  }

  const bool asJson_;
  const bool isPage_;
  const bool withColor_;
  Screen screen_;
  TransferRates rates_;
  WatchFacts facts_;
  std::set<std::string> before_;
  std::string lastJson_;
};

/// The exit code, if a key ends this.
std::optional<int> takeKey() {
  char key = 0;
  const ssize_t got = ::read(STDIN_FILENO, &key, 1);
  if (got == 1 && (key == 'q' || key == 'Q')) return 0;
  return std::nullopt;
}

/// Waits until it is time to look again; the exit code, if this is the end.
std::optional<int> waitForNext(const Signals& signals, Teller& teller, bool& readsKeys) {
  const auto deadline = std::chrono::steady_clock::now() + kInterval;
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    std::array<pollfd, 2> polled = {pollfd{signals.descriptor(), POLLIN, 0},
                                    pollfd{readsKeys ? STDIN_FILENO : -1, POLLIN, 0}};
    if (::poll(polled.data(), polled.size(), static_cast<int>(left.count())) <= 0) continue;
    if ((polled[1].revents & POLLIN) != 0) {
      if (const auto code = takeKey()) return code;
    } else if (polled[1].revents != 0) {
      readsKeys = false;
    }
    while (const auto signal = signals.take()) {
      if (*signal == SIGWINCH) {
        if (teller.isPage()) teller.redraw();
      } else if (*signal == SIGTSTP) {
        teller.putAside();
      } else {
        return exitCodeOf(*signal);
      }
    }
  }
}

}  // namespace

int runWatch(const HostFinder& finder, const WatchOptions& options) {
  Watched watched(finder, options);
  const Signals signals;
  try {
    Teller teller(options.asJson);
    bool readsKeys = teller.isPage() && ::isatty(STDIN_FILENO) != 0;
    for (;;) {
      teller.tell(watched.look());
      if (const auto code = waitForNext(signals, teller, readsKeys)) return *code;
    }
  } catch (const platform::NSError& error) {
    throw CommandError(error.localizedDescription());
  }
}

}  // namespace kestrune
