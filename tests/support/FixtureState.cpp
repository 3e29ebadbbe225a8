#include "tests/support/FixtureState.h"

#include <algorithm>

namespace kestrune::support {

using platform::MutexLock;

std::optional<Answer> HeldRequest::State::take(std::chrono::milliseconds patience) {
  const auto end = std::chrono::steady_clock::now() + patience;
  MutexLock lock(mutex);
  while (!answer) {
    if (!lock.waitUntil(changed, end)) break;
  }
  return answer;
}

const ReceivedRequest& HeldRequest::request() const { return state_->request; }

void HeldRequest::answer(Answer answer) const {
  {
    MutexLock lock(state_->mutex);
    state_->answer = std::move(answer);
  }
  state_->changed.notify_all();
}

void FixtureState::on(std::string method, std::string path, HttpFixture::Handler handler) {
  MutexLock lock(mutex_);
  Route& route = routes_[{std::move(method), std::move(path)}];
  route.held = false;
  route.answers.clear();
  route.handler = std::move(handler);
}

void FixtureState::on(std::string method, std::string path, std::vector<Answer> answers) {
  MutexLock lock(mutex_);
  Route& route = routes_[{std::move(method), std::move(path)}];
  route.held = false;
  route.answers.assign(answers.begin(), answers.end());
  route.handler = nullptr;
}

void FixtureState::next(std::string method, std::string path, Answer answer) {
  MutexLock lock(mutex_);
  routes_[{std::move(method), std::move(path)}].once.push_back(std::move(answer));
}

void FixtureState::hold(std::string method, std::string path) {
  MutexLock lock(mutex_);
  routes_[{std::move(method), std::move(path)}].held = true;
}

void FixtureState::otherwise(HttpFixture::Handler handler) {
  MutexLock lock(mutex_);
  otherwise_ = std::move(handler);
}

FixtureState::Decision FixtureState::decide(const ReceivedRequest& head) {
  MutexLock lock(mutex_);
  if (const auto found = routes_.find({head.method, head.path()}); found != routes_.end()) {
    Route& route = found->second;
    if (!route.once.empty()) {
      Answer answer = std::move(route.once.front());
      route.once.pop_front();
      return answer;
    }
    if (route.held) return Held{};
    if (route.answers.size() > 1) {
      Answer answer = std::move(route.answers.front());
      route.answers.pop_front();
      return answer;
    }
    if (!route.answers.empty()) return route.answers.front();
    if (route.handler) return route.handler;
  }
  if (otherwise_) return otherwise_;
  return Answer(404, "no route in the fixture");
}

std::size_t FixtureState::begin(ReceivedRequest request) {
  MutexLock lock(mutex_);
  request.sequence = requests_.size();
  requests_.push_back(std::move(request));
  maxConcurrent_ = std::max(maxConcurrent_, ++concurrent_);
  return requests_.size() - 1;
}

void FixtureState::change(std::size_t sequence,
                          const std::function<void(ReceivedRequest&)>& apply) {
  MutexLock lock(mutex_);
  apply(requests_[sequence]);
}

void FixtureState::end(std::size_t sequence, AnswerOutcome outcome) {
  MutexLock lock(mutex_);
  requests_[sequence].outcome = outcome;
  --concurrent_;
}

void FixtureState::addHeld(std::shared_ptr<HeldRequest::State> held) {
  MutexLock lock(mutex_);
  held_.push_back(std::move(held));
}

std::shared_ptr<HeldRequest::State> FixtureState::takeHeld() {
  MutexLock lock(mutex_);
  if (held_.empty()) return nullptr;
  auto first = std::move(held_.front());
  held_.pop_front();
  return first;
}

std::vector<ReceivedRequest> FixtureState::requests() const {
  MutexLock lock(mutex_);
  return requests_;
}

std::size_t FixtureState::requestCount() const {
  MutexLock lock(mutex_);
  return requests_.size();
}

std::size_t FixtureState::requestCount(std::string_view method, std::string_view path) const {
  MutexLock lock(mutex_);
  return static_cast<std::size_t>(std::count_if(
      requests_.begin(), requests_.end(),
      [&](const auto& request) { return request.method == method && request.path() == path; }));
}

std::optional<ReceivedRequest> FixtureState::request(std::size_t sequence) const {
  MutexLock lock(mutex_);
  if (sequence >= requests_.size()) return std::nullopt;
  return requests_[sequence];
}

std::optional<AnswerOutcome> FixtureState::outcome(std::size_t sequence) const {
  MutexLock lock(mutex_);
  if (sequence >= requests_.size()) return std::nullopt;
  return requests_[sequence].outcome;
}

std::size_t FixtureState::maxConcurrentRequests() const {
  MutexLock lock(mutex_);
  return maxConcurrent_;
}

std::shared_ptr<const std::atomic<bool>> FixtureState::idleFlag() const {
  MutexLock lock(mutex_);
  return idleFlag_;
}

void FixtureState::raiseIdleFlag() {
  MutexLock lock(mutex_);
  *idleFlag_ = true;
  idleFlag_ = std::make_shared<std::atomic<bool>>(false);
}

}  // namespace kestrune::support
