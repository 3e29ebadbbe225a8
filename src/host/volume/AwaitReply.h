// An operation that answers by a Reply, awaited in a task.
#pragma once

#include <functional>
#include <utility>

#include "host/basics/Answer.h"
#include "platform/tasks/Continuation.h"
#include "platform/tasks/Task.h"

namespace kestrune::host {

/// Calls `start` with the reply that resumes the task, on whatever thread it comes.
template <class T>
platform::Task<Answer<T>> awaitReply(std::function<void(Reply<T>)> start) {
  auto begin = [&start](platform::Continuation<Answer<T>> continuation) {
    start([continuation](Answer<T> answer) { continuation.resume(std::move(answer)); });
  };
  co_return co_await platform::suspendUntilResumed<Answer<T>>(begin);
}

}  // namespace kestrune::host
