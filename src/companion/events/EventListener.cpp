#include "companion/events/EventListener.h"

#include <pthread.h>

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "api/APIError.h"
#include "api/KestruneAPI.h"
#include "companion/events/EventStreamParser.h"
#include "companion/events/EventsLog.h"
#include "platform/net/URLError.h"

namespace kestrune {

using platform::HTTPURLResponse;
using platform::LogLevel;
using platform::MutexLock;
using platform::Task;
using platform::URLByteStream;
using platform::URLRequest;
using Clock = std::chrono::steady_clock;

namespace {

constexpr int kUnauthorized = 401;
constexpr int kOk = 200;
constexpr std::string_view kStreamType = "text/event-stream";

bool isEventStream(const HTTPURLResponse& response) {
  if (response.statusCode != kOk) return false;
  std::string type = response.valueForHTTPHeaderField("Content-Type").value_or("");
  type.resize(std::min(type.find_first_of("; \t"), type.size()));
  return std::equal(
      type.begin(), type.end(), kStreamType.begin(), kStreamType.end(),
      [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a + ('a' - 'A') : a) == b; });
}

}  // namespace

EventListener::EventListener(EventListenerOptions options, std::function<void()> writeToken)
    : options_(options),
      tokens_(std::move(writeToken), options.leastTokenInterval),
      session_(platform::URLSessionConfiguration{}),
      nextPause_(options.firstPause),
      thread_([this] { run(); }) {}

EventListener::~EventListener() {
  {
    MutexLock lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
  }
  session_.invalidateAndCancel();
  thread_.join();
}

void EventListener::run() {
  ::pthread_setname_np(::pthread_self(), "kes-events");
  do {
    End end = End::lost;
    const auto begun = Clock::now();
    platform::runBlocking(listen(&end));
    lastedLong_ = Clock::now() - begun > options_.longestPause;
    const auto duration = pauseAfter(end);
    if (!pause(duration)) return;
  } while (true);
}

// `end` lives in `run`, which waits for this task.
Task<void> EventListener::listen(End* end) {
  try {
    URLRequest request = KestruneAPI::makeRequest("GET", "/events");
    request.timeoutInterval = options_.silence;
    request.headers.emplace_back("Accept", kStreamType);
    URLByteStream stream = co_await session_.bytes(std::move(request));
    if (!isEventStream(stream.response())) {
      *end = stream.response().statusCode == kUnauthorized ? End::refused : End::noEvents;
      co_return;
    }
    connected();
    EventStreamParser parser;
    auto piece = co_await stream.next();
    while (piece) {
      if (parser.take(*piece) > 0) tokens_.want();
      piece = co_await stream.next();
    }
  } catch (const platform::URLError& error) {
    // Who could not be reached, or was cut off, may be there again soon.
    if (!saidLost_ && error.code() != platform::URLError::cancelled) {
      eventsLog().write(LogLevel::info, "the service's events cannot be heard: %{public}s",
                        error.localizedDescription());
      saidLost_ = true;
    }
  } catch (const APIError&) {
    *end = End::noEvents;  // there is no service to ask
  }
}

void EventListener::connected() {
  tokens_.repeatEvery(std::nullopt);
  tokens_.want();
  saidRefused_ = false;
  saidLost_ = false;
}

std::chrono::milliseconds EventListener::pauseAfter(End end) {
  if (end != End::lost) {
    nextPause_ = options_.firstPause;
    tokens_.repeatEvery(options_.refresh);
    if (end == End::refused && !saidRefused_) {
      eventsLog().write(LogLevel::error,
                        "the service does not accept the token; changes are not heard of");
      saidRefused_ = true;
    }
    return options_.askAgain;
  }
  if (lastedLong_) nextPause_ = options_.firstPause;
  return std::exchange(nextPause_, std::min(nextPause_ * 2, options_.longestPause));
}

bool EventListener::pause(std::chrono::milliseconds duration) {
  const auto end = Clock::now() + duration;
  MutexLock lock(mutex_);
  while (!stopping_ && Clock::now() < end) {
    static_cast<void>(lock.waitUntil(changed_, end));
  }
  return !stopping_;
}

}  // namespace kestrune
