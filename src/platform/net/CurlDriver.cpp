#include "platform/net/CurlDriver.h"

#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace kestrune::platform {

namespace {

// Idle connections that a session keeps for reuse.
constexpr long kKeptConnections = 64;
// Without anything to wait for, the thread sleeps until it is woken.
constexpr int kLongestPollMilliseconds = 60'000;

void initialiseLibcurl() {
  static const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (code != CURLE_OK) {
    std::fprintf(stderr, "kestrune: libcurl cannot be initialised: %s\n", curl_easy_strerror(code));
    std::abort();
  }
}

CURLM* makeMulti() {
  initialiseLibcurl();
  CURLM* multi = curl_multi_init();
  if (multi == nullptr) throw URLError(URLError::unknown);
  return multi;
}

std::exception_ptr cancelledError() {
  return std::make_exception_ptr(URLError(URLError::cancelled));
}

}  // namespace

CurlDriver::CurlDriver(const URLSessionConfiguration& configuration)
    : multi_(makeMulti()),
      maximumPerHost_(std::max(configuration.httpMaximumConnectionsPerHost, 1)) {
  curl_multi_setopt(multi_, CURLMOPT_MAXCONNECTS, kKeptConnections);
}

CurlDriver::~CurlDriver() { curl_multi_cleanup(multi_); }

std::shared_ptr<CurlDriver> CurlDriver::start(const URLSessionConfiguration& configuration) {
  std::shared_ptr<CurlDriver> driver(new CurlDriver(configuration));
  // The thread keeps the driver: a session may be destroyed on this very thread.
  driver->thread_ = std::thread([driver] { driver->run(); });
  return driver;
}

void CurlDriver::post(Command command) {
  {
    MutexLock lock(mutex_);
    if (!stopped_) {
      commands_.push_back(std::move(command));
      curl_multi_wakeup(multi_);
      return;
    }
  }
  if (command.order == Order::add) command.transfer->fail(cancelledError());
}

void CurlDriver::add(std::shared_ptr<Transfer> transfer) {
  post({Order::add, std::move(transfer)});
}

void CurlDriver::cancel(std::shared_ptr<Transfer> transfer) {
  post({Order::cancel, std::move(transfer)});
}

void CurlDriver::resumeReading(std::shared_ptr<Transfer> transfer) {
  post({Order::resumeReading, std::move(transfer)});
}

void CurlDriver::invalidate() {
  {
    MutexLock lock(mutex_);
    invalidated_ = true;
  }
  post({Order::invalidate, nullptr});
}

void CurlDriver::stop() {
  {
    MutexLock lock(mutex_);
    invalidated_ = true;
  }
  post({Order::stop, nullptr});
  if (!thread_.joinable()) return;
  if (std::this_thread::get_id() == thread_.get_id()) {
    thread_.detach();
  } else {
    thread_.join();
  }
}

void CurlDriver::run() {
#if defined(__APPLE__)
  pthread_setname_np("kestrune.net");
#else
  pthread_setname_np(pthread_self(), "kestrune.net");
#endif
  while (carryOutCommands()) {
    int running = 0;
    curl_multi_perform(multi_, &running);
    for (const auto& entry : active_) entry.second->sink().turnEnded();
    collectEnded();
    expire();
    curl_multi_poll(multi_, nullptr, 0, pollMilliseconds(), nullptr);
  }
  endAll();
}

bool CurlDriver::carryOutCommands() {
  std::vector<Command> commands;
  bool invalidated = false;
  bool goOn = true;
  {
    MutexLock lock(mutex_);
    commands.swap(commands_);
    invalidated = invalidated_;
    const auto isStop = [](const Command& command) { return command.order == Order::stop; };
    if (std::any_of(commands.begin(), commands.end(), isStop)) {
      stopped_ = true;  // whatever is posted from now on is answered by its caller
      goOn = false;
    }
  }
  for (const Command& command : commands) {
    switch (command.order) {
      case Order::add:
        if (invalidated) {
          command.transfer->fail(cancelledError());
        } else {
          hosts_[command.transfer->origin()].waiting.push_back(command.transfer);
          startWaiting(command.transfer->origin());
        }
        break;
      case Order::cancel:
        if (detach(command.transfer.get())) command.transfer->fail(cancelledError());
        break;
      case Order::resumeReading:
        if (active_.contains(command.transfer.get()) && command.transfer->isPaused()) {
          command.transfer->setPaused(false);
          curl_easy_pause(command.transfer->handle(), CURLPAUSE_CONT);
        }
        break;
      case Order::invalidate:
      case Order::stop:
        endAll();
        break;
    }
  }
  return goOn;
}

bool CurlDriver::start(const std::shared_ptr<Transfer>& transfer) {
  std::exception_ptr failure;
  try {
    CURL* easy = transfer->prepare();
    const CURLMcode code = curl_multi_add_handle(multi_, easy);
    if (code != CURLM_OK) throw URLError(URLError::unknown, curl_multi_strerror(code));
  } catch (...) {
    failure = std::current_exception();
  }
  if (failure) {
    transfer->fail(std::move(failure));  // outside of the handler: it belongs to the reader alone
    return false;
  }
  active_.emplace(transfer.get(), transfer);
  return true;
}

void CurlDriver::startWaiting(const std::string& origin) {
  const auto found = hosts_.find(origin);
  if (found == hosts_.end()) return;
  Host& host = found->second;
  while (!host.waiting.empty() && host.running < maximumPerHost_) {
    const std::shared_ptr<Transfer> next = std::move(host.waiting.front());
    host.waiting.pop_front();
    if (start(next)) ++host.running;
  }
  if (host.running == 0 && host.waiting.empty()) hosts_.erase(found);
}

bool CurlDriver::detach(Transfer* transfer) {
  if (active_.erase(transfer) > 0) {
    curl_multi_remove_handle(multi_, transfer->handle());
    --hosts_[transfer->origin()].running;
    startWaiting(transfer->origin());
    return true;
  }
  const auto host = hosts_.find(transfer->origin());
  if (host == hosts_.end()) return false;
  // The caller's pointer keeps it.
  return std::erase_if(host->second.waiting,
                       [transfer](const auto& waiting) { return waiting.get() == transfer; }) > 0;
}

void CurlDriver::endAll() {
  // First those that wait: nothing may start any more.
  for (auto& [origin, host] : hosts_) {
    for (const auto& transfer : std::exchange(host.waiting, {})) transfer->fail(cancelledError());
  }
  while (!active_.empty()) {
    const std::shared_ptr<Transfer> transfer = active_.begin()->second;
    detach(transfer.get());
    transfer->fail(cancelledError());
  }
  hosts_.clear();
}

void CurlDriver::collectEnded() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    const CURLcode code = message->data.result;
    void* owner = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &owner);
    const std::shared_ptr<Transfer> transfer = static_cast<Transfer*>(owner)->shared_from_this();
    detach(transfer.get());
    transfer->finish(code);
  }
}

void CurlDriver::expire() {
  const auto now = std::chrono::steady_clock::now();
  std::vector<std::shared_ptr<Transfer>> expired;
  for (const auto& [key, transfer] : active_) {
    const auto deadline = transfer->idleDeadline();
    if (deadline && *deadline <= now) expired.push_back(transfer);
  }
  for (const auto& [origin, host] : hosts_) {
    // All transfers of a session may last equally long, so the first that waits runs out first.
    for (const auto& transfer : host.waiting) {
      if (transfer->resourceDeadline() > now) break;
      expired.push_back(transfer);
    }
  }
  for (const auto& transfer : expired) {
    if (detach(transfer.get()))
      transfer->fail(std::make_exception_ptr(URLError(URLError::timedOut)));
  }
}

int CurlDriver::pollMilliseconds() const {
  auto wait = std::chrono::milliseconds(kLongestPollMilliseconds);
  const auto now = std::chrono::steady_clock::now();
  const auto waitUntil = [&wait, now](Transfer::Instant deadline) {
    wait = std::min(wait, std::chrono::ceil<std::chrono::milliseconds>(deadline - now));
  };
  for (const auto& [key, transfer] : active_) {
    if (const auto deadline = transfer->idleDeadline()) waitUntil(*deadline);
  }
  for (const auto& [origin, host] : hosts_) {
    if (!host.waiting.empty()) waitUntil(host.waiting.front()->resourceDeadline());
  }
  return static_cast<int>(std::max(wait, std::chrono::milliseconds(0)).count());
}

}  // namespace kestrune::platform
