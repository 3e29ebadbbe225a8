// The kernel's queue of what happens in watched folders (inotify), and a way to end the wait for it. Linux only.
//
// One thread waits and takes; another may stop it. Which folders are watched, and what an event means, is the user's
// business.
//
//     while (events.wait(FileEvents::kForEver)) events.take([](const FileEvents::Event& event) { … });
//
// Owns: its descriptors; the watches end with them.
// Threads: `stop` from any thread, everything else from one at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string_view>

namespace kestrune::platform {

class FileEvents {
 public:
  static constexpr std::chrono::milliseconds kForEver{-1};

  /// One event of inotify(7). Its name is empty where it is of the watched folder itself.
  struct Event {
    int watch;
    std::uint32_t kinds;
    std::string_view name;
  };

  /// Watches nothing yet; `begin` comes first. Throws NSPOSIXError where descriptors are short.
  FileEvents();
  ~FileEvents();
  FileEvents(const FileEvents&) = delete;
  FileEvents& operator=(const FileEvents&) = delete;

  /// Begins with an empty queue and without watches, also in the place of those that there were. Throws NSPOSIXError if the
  /// kernel gives no means (a user has 128 queues unless more are allowed); nothing is ever queued then.
  void begin();

  /// Watches what is at `path` for `kinds` (IN_CREATE …), from now on. The same number again where it is watched already;
  /// -1 with errno where it cannot be.
  int watch(const char* path, std::uint32_t kinds) noexcept;
  /// Ends a watch. Events of it that are queued already are taken all the same.
  void forget(int watch) noexcept;

  /// Waits until something is queued or `limit` has passed. False, at once and for ever, when it is to stop.
  bool wait(std::chrono::milliseconds limit);
  /// Waits for `duration` whatever is queued, so that more of it is taken together. False when it is to stop.
  bool pause(std::chrono::milliseconds duration);
  /// Hands over what is queued, in order, without waiting. Somebody who makes events as fast as they are taken does not
  /// keep it here: the rest comes with the next call.
  void take(const std::function<void(const Event&)>& taken);

  void stop() noexcept;

 private:
  void closeQueue() noexcept;

  const int stop_;
  int queue_ = -1;
};

}  // namespace kestrune::platform
