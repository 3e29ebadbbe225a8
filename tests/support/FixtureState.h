// What the connections of one HttpFixture share: the routes and the record of what has happened.
// Internal to the fixture.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "platform/values/Mutex.h"
#include "tests/support/HttpFixture.h"

namespace kestrune::support {

struct HeldRequest::State {
  explicit State(ReceivedRequest received) : request(std::move(received)) {}
  const ReceivedRequest request;
  platform::Mutex mutex;
  std::condition_variable changed;
  std::optional<Answer> answer GUARDED_BY(mutex);

  /// The answer, if it comes within `patience`.
  std::optional<Answer> take(std::chrono::milliseconds patience);
};

class FixtureState {
 public:
  struct Held {};
  /// What is to be done with a request, decided when its head is there.
  using Decision = std::variant<Answer, HttpFixture::Handler, Held>;

  void on(std::string method, std::string path, HttpFixture::Handler handler);
  void on(std::string method, std::string path, std::vector<Answer> answers);
  void next(std::string method, std::string path, Answer answer);
  void hold(std::string method, std::string path);
  void otherwise(HttpFixture::Handler handler);
  Decision decide(const ReceivedRequest& head);

  /// Records a request whose head has arrived and returns its sequence number.
  std::size_t begin(ReceivedRequest request);
  void change(std::size_t sequence, const std::function<void(ReceivedRequest&)>& apply);
  /// The request's answer is no longer underway.
  void end(std::size_t sequence, AnswerOutcome outcome);
  void addHeld(std::shared_ptr<HeldRequest::State> held);
  std::shared_ptr<HeldRequest::State> takeHeld();

  std::vector<ReceivedRequest> requests() const;
  std::size_t requestCount() const;
  std::size_t requestCount(std::string_view method, std::string_view path) const;
  /// None if there is no such request.
  std::optional<ReceivedRequest> request(std::size_t sequence) const;
  std::optional<AnswerOutcome> outcome(std::size_t sequence) const;
  std::size_t maxConcurrentRequests() const;

  std::atomic<bool> stopping = false;
  std::atomic<std::size_t> connectionsAccepted = 0;
  std::atomic<std::size_t> openConnections = 0;
  std::atomic<std::size_t> idleConnections = 0;
  std::atomic<std::size_t> failedHandshakes = 0;
  /// Moved to end the connections that are idle at that moment: each waits with the flag that is
  /// current when it becomes idle, and ends when that flag is set.
  std::shared_ptr<const std::atomic<bool>> idleFlag() const;
  void raiseIdleFlag();

 private:
  using Key = std::pair<std::string, std::string>;
  struct Route {
    std::deque<Answer> once;
    bool held = false;
    std::deque<Answer> answers;
    HttpFixture::Handler handler;
  };

  mutable platform::Mutex mutex_;
  std::map<Key, Route> routes_ GUARDED_BY(mutex_);
  HttpFixture::Handler otherwise_ GUARDED_BY(mutex_);
  std::vector<ReceivedRequest> requests_ GUARDED_BY(mutex_);
  std::deque<std::shared_ptr<HeldRequest::State>> held_ GUARDED_BY(mutex_);
  std::size_t concurrent_ GUARDED_BY(mutex_) = 0;
  std::size_t maxConcurrent_ GUARDED_BY(mutex_) = 0;
  std::shared_ptr<std::atomic<bool>> idleFlag_ GUARDED_BY(mutex_) =
      std::make_shared<std::atomic<bool>>(false);
};

}  // namespace kestrune::support
