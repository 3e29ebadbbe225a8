#include "companion/test/ConsoleHarness.h"

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <utility>

namespace kestrune {

using platform::MutexLock;

namespace {

constexpr std::chrono::seconds kDeadline{20};

}  // namespace

void ByteFeed::put(std::string bytes) {
  {
    MutexLock lock(mutex_);
    waiting_.push_back(std::move(bytes));
  }
  arrived_.notify_one();
}

void ByteFeed::close() {
  {
    MutexLock lock(mutex_);
    isClosed_ = true;
  }
  arrived_.notify_one();
}

ByteFeed::int_type ByteFeed::underflow() {
  MutexLock lock(mutex_);
  while (waiting_.empty() && !isClosed_) lock.wait(arrived_);
  if (waiting_.empty()) return traits_type::eof();
  current_.clear();
  for (const auto& bytes : waiting_) current_ += bytes;
  waiting_.clear();
  if (current_.empty()) return traits_type::eof();
  setg(current_.data(), current_.data(), current_.data() + current_.size());
  return traits_type::to_int_type(current_.front());
}

ConsoleHarness::ConsoleHarness(std::shared_ptr<FakeExtension> extension,
                               const Console::Settings& settings, std::function<void()> drainStatus)
    : extension_(std::move(extension)) {
  thread_ = std::thread([this, settings, drain = std::move(drainStatus)] { run(settings, drain); });
  started_.get_future().wait();
}

ConsoleHarness::~ConsoleHarness() {
  if (thread_.joinable()) finish();
}

void ConsoleHarness::run(const Console::Settings& settings, std::function<void()> drainStatus) {
  auto print = [this](std::string_view line) {
    {
      MutexLock lock(mutex_);
      EXPECT_TRUE(line.ends_with('\n'));
      lines_.emplace_back(line.substr(0, line.size() - 1));
    }
    printed_.notify_all();
  };
  auto makeExtension = [this](platform::NSFileProviderDomainPtr domain,
                              std::shared_ptr<const platform::Clock> clock) {
    domain_ = std::move(domain);
    clock_ = std::move(clock);
    return extension_;
  };
  Console console(settings, {print, makeExtension, std::move(drainStatus)});
  started_.set_value();
  std::istream input(&input_);
  console.run(input);
  endedPromise_.set_value();
}

std::string ConsoleHarness::lineWith(std::string_view part) {
  const auto deadline = std::chrono::steady_clock::now() + kDeadline;
  MutexLock lock(mutex_);
  for (std::size_t next = 0;;) {
    for (; next < lines_.size(); ++next) {
      if (lines_[next].find(part) != std::string::npos) return lines_[next];
    }
    if (!lock.waitUntil(printed_, deadline)) break;
  }
  ADD_FAILURE() << "no line with " << part << " came";
  return "";
}

std::vector<std::string> ConsoleHarness::lines() const {
  MutexLock lock(mutex_);
  return lines_;
}

bool ConsoleHarness::hasLineWith(std::string_view part) const {
  MutexLock lock(mutex_);
  for (const auto& line : lines_) {
    if (line.find(part) != std::string::npos) return true;
  }
  return false;
}

bool ConsoleHarness::hasEnded() const {
  return ended_.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

std::vector<std::string> ConsoleHarness::finish() {
  input_.close();
  if (ended_.wait_for(kDeadline) != std::future_status::ready) {
    // The console's thread cannot be joined, and nothing of the test may be taken away from it.
    std::cerr << "the console did not end; it printed:\n";
    for (const auto& line : lines()) std::cerr << line << "\n";
    std::abort();
  }
  thread_.join();
  return lines();
}

std::vector<std::string> consoleLines(std::shared_ptr<FakeExtension> extension,
                                      const std::vector<std::string>& calls,
                                      const Console::Settings& settings) {
  ConsoleHarness console(std::move(extension), settings);
  for (const auto& call : calls) console.send(call);
  return console.finish();
}

}  // namespace kestrune
