#include "StandIn.h"

#include <dispatch/dispatch.h>
#include <os/log.h>

#include <condition_variable>
#include <cstdarg>
#include <deque>

#include "StandInState.h"

namespace standin {

using kestrune::platform::Mutex;
using kestrune::platform::MutexLock;

State& State::shared() {
  static auto* const instance = new State;
  return *instance;
}

void State::recordAndAnswer(const ManagerCall& call, std::function<void(const Failure*)> answer) {
  std::optional<Failure> failure;
  {
    MutexLock lock(mutex);
    calls.push_back(call);
    if (const auto found = failures.find(call.identifier); found != failures.end())
      failure = found->second;
  }
  std::thread([failure, answer = std::move(answer)] {
    answer(failure ? &*failure : nullptr);
  }).detach();
}

bool State::hasManagers() {
  MutexLock lock(mutex);
  return managers;
}

std::vector<LogLine> logLines() {
  MutexLock lock(State::shared().mutex);
  return State::shared().lines;
}

std::vector<ManagerCall> managerCalls() {
  MutexLock lock(State::shared().mutex);
  return State::shared().calls;
}

void failCallsAbout(const std::string& identifier, long code, const std::string& description) {
  MutexLock lock(State::shared().mutex);
  State::shared().failures[identifier] = {code, description};
}

void setHasManagers(bool has) {
  MutexLock lock(State::shared().mutex);
  State::shared().managers = has;
}

std::optional<std::string> pasteboardText() {
  MutexLock lock(State::shared().mutex);
  return State::shared().pasteboard;
}

bool pasteboardWasTouchedOnMainThreadOnly() {
  MutexLock lock(State::shared().mutex);
  return !State::shared().touchedElsewhere;
}

namespace {

struct MainWork {
  void* context;
  dispatch_function_t function;
};

struct MainQueue {
  Mutex mutex;
  std::condition_variable changed;
  std::deque<MainWork> work GUARDED_BY(mutex);
};

MainQueue& mainQueue() {
  static auto* const instance = new MainQueue;
  return *instance;
}

std::optional<MainWork> nextMainWork() {
  MainQueue& queue = mainQueue();
  MutexLock lock(queue.mutex);
  if (queue.work.empty())
    lock.waitUntil(queue.changed, std::chrono::steady_clock::now() + std::chrono::milliseconds(5));
  if (queue.work.empty()) return std::nullopt;
  const MainWork next = queue.work.front();
  queue.work.pop_front();
  return next;
}

}  // namespace

bool serveMainQueueUntil(const std::function<bool()>& condition,
                         std::chrono::milliseconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    if (const auto work = nextMainWork()) work->function(work->context);
  }
  return true;
}

}  // namespace standin

struct os_log_s {
  std::string subsystem;
  std::string category;
};

struct dispatch_queue_s {};

namespace {

/// Takes one conversion off `format`, which begins with "%", and gives it as a release log shows it.
std::string takeConversion(std::string_view& format, va_list* arguments) {
  format.remove_prefix(1);
  std::string_view annotation;
  if (format.starts_with('{')) {
    annotation = format.substr(1, format.find('}') - 1);
    format.remove_prefix(annotation.size() + 2);
  }
  const std::size_t length = format.find_first_of("sdf%") + 1;
  const std::string_view conversion = format.substr(0, length);
  format.remove_prefix(length);
  if (conversion == "%") return "%";
  if (conversion == "s") {
    const std::string text = va_arg(*arguments, const char*);
    return annotation == "public" ? text : "<private>";
  }
  if (conversion == "ld") return std::to_string(va_arg(*arguments, long));
  if (conversion == "lld") return std::to_string(va_arg(*arguments, long long));
  if (conversion == "d") {
    const int value = va_arg(*arguments, int);
    if (annotation == "bool") return value != 0 ? "true" : "false";
    return std::to_string(value);
  }
  if (conversion == ".*f") {
    const int precision = va_arg(*arguments, int);
    std::string text(64, '\0');
    const int size =
        std::snprintf(text.data(), text.size(), "%.*f", precision, va_arg(*arguments, double));
    text.resize(static_cast<std::size_t>(size));
    return text;
  }
  return "<unknown conversion>";
}

}  // namespace

os_log_t os_log_create(const char* subsystem, const char* category) {
  // Kept for good, as the platform keeps its own.
  static kestrune::platform::Mutex mutex;
  static auto* const logs = new std::deque<os_log_s>;
  kestrune::platform::MutexLock lock(mutex);
  return &logs->emplace_back(os_log_s{subsystem, category});
}

void standInLog(os_log_t log, os_log_type_t type, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::string message;
  std::string_view rest = format;
  while (!rest.empty()) {
    if (rest.front() == '%') {
      message += takeConversion(rest, &arguments);
    } else {
      message += rest.front();
      rest.remove_prefix(1);
    }
  }
  va_end(arguments);
  kestrune::platform::MutexLock lock(standin::State::shared().mutex);
  standin::State::shared().lines.push_back({log->subsystem, log->category, type, format, message});
}

dispatch_queue_t dispatch_get_main_queue() {
  static dispatch_queue_s queue;
  return &queue;
}

void dispatch_async_f(dispatch_queue_t, void* context, dispatch_function_t work) {
  standin::MainQueue& queue = standin::mainQueue();
  kestrune::platform::MutexLock lock(queue.mutex);
  queue.work.push_back({context, work});
  queue.changed.notify_all();
}
