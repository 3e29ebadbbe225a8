// Everything that a call leaves running, so that a test can wait until it has really ended: an operation has answered
// before its task has written its last log line and told the status store.
//
//     DetachedTasks tasks([&] { enumerator.enumerateItems(observer, page); });
//     …                                            // whatever must happen meanwhile
//     ASSERT_TRUE(tasks.waitUntilEnded());
//
// The tasks begin when the call has returned: what an observer has been told by then came on the caller's thread.
//
// Threads: an object belongs to one thread.
#pragma once

#include <chrono>
#include <functional>
#include <future>
#include <memory>

namespace kestrune::support {

class DetachedTasks {
 public:
  explicit DetachedTasks(const std::function<void()>& call);

  /// False when `deadline` passed first; the tasks go on then.
  [[nodiscard]] bool waitUntilEnded(
      std::chrono::milliseconds deadline = std::chrono::seconds(30)) const;
  bool haveEnded() const { return waitUntilEnded(std::chrono::milliseconds(0)); }

 private:
  std::future<void> ended_;
};

}  // namespace kestrune::support
