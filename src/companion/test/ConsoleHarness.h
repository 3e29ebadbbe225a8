// A console on a thread of its own, with an input that the test feeds line by line and an output
// that it reads.
#pragma once

#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <streambuf>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "companion/console/Console.h"
#include "companion/test/FakeExtension.h"
#include "platform/values/Mutex.h"

namespace kestrune {

/// Bytes that one thread puts in and another reads; reading waits for more until the feed is
/// closed.
class ByteFeed : public std::streambuf {
 public:
  void put(std::string bytes);
  void close();

 protected:
  int_type underflow() override;

 private:
  platform::Mutex mutex_;
  std::condition_variable arrived_;
  std::vector<std::string> waiting_ GUARDED_BY(mutex_);
  bool isClosed_ GUARDED_BY(mutex_) = false;
  std::string current_;  // used by the reading thread alone
};

class ConsoleHarness {
 public:
  explicit ConsoleHarness(
      std::shared_ptr<FakeExtension> extension, const Console::Settings& settings = {},
      std::function<void()> drainStatus = [] {});
  ~ConsoleHarness();
  ConsoleHarness(const ConsoleHarness&) = delete;
  ConsoleHarness& operator=(const ConsoleHarness&) = delete;

  /// One call, or whatever else stands on a line.
  void send(std::string_view line) { input_.put(std::string(line) + "\n"); }
  void sendBytes(std::string_view bytes) { input_.put(std::string(bytes)); }

  /// Waits until a line holds `part` and returns it; fails the test at the deadline.
  std::string lineWith(std::string_view part);
  /// The lines printed so far, without their line feeds.
  std::vector<std::string> lines() const;
  bool hasLineWith(std::string_view part) const;

  /// Closes the input, waits for the console to end and returns all lines.
  std::vector<std::string> finish();
  /// Closes the input without waiting.
  void closeInput() { input_.close(); }
  bool hasEnded() const;

  /// The clock that the extension was given.
  std::shared_ptr<const platform::Clock> clock() const { return clock_; }
  platform::NSFileProviderDomainPtr domain() const { return domain_; }

 private:
  void run(const Console::Settings& settings, std::function<void()> drainStatus);

  ByteFeed input_;
  const std::shared_ptr<FakeExtension> extension_;
  std::shared_ptr<const platform::Clock> clock_;
  platform::NSFileProviderDomainPtr domain_;
  mutable platform::Mutex mutex_;
  std::condition_variable printed_;
  std::vector<std::string> lines_ GUARDED_BY(mutex_);
  std::promise<void> started_;
  std::promise<void> endedPromise_;
  std::future<void> ended_ = endedPromise_.get_future();
  std::thread thread_;
};

/// The lines that a console prints for `calls`.
std::vector<std::string> consoleLines(std::shared_ptr<FakeExtension> extension,
                                      const std::vector<std::string>& calls,
                                      const Console::Settings& settings = {});

}  // namespace kestrune
