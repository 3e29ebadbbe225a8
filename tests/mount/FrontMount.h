// A tree in memory mounted by another process through the host's front, and small words for system calls on it.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/values/Json.h"
#include "tests/mount/MountedStore.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::mounttest {

/// Runs `call` and returns the errno that it left, 0 for success.
template <class Call>
int errnoOf(const Call& call) {
  errno = 0;
  return call() < 0 ? errno : 0;
}

/// An open file; throws if it cannot be opened.
class FileNumber {
 public:
  FileNumber(const std::filesystem::path& path, int flags, mode_t mode = 0666);
  ~FileNumber() { close(); }
  FileNumber(const FileNumber&) = delete;
  FileNumber& operator=(const FileNumber&) = delete;
  // NOLINTNEXTLINE(google-explicit-constructor): it stands for its number
  operator int() const { return number_; }
  void close();

 private:
  int number_;
};

std::string bytesOf(int file, std::size_t from, std::size_t length);
std::string bytesOf(const std::filesystem::path& path);
void put(const std::filesystem::path& path, const std::string& text);
struct stat statusOf(const std::filesystem::path& path);
std::vector<std::string> namesIn(const std::filesystem::path& folder);

/// A thread that makes one system call and is interrupted in it by a signal without a restart.
class InterruptedCall {
 public:
  explicit InterruptedCall(std::function<int()> call);
  ~InterruptedCall() { thread_.join(); }
  InterruptedCall(const InterruptedCall&) = delete;
  InterruptedCall& operator=(const InterruptedCall&) = delete;
  void interrupt() { signal(SIGUSR1); }
  void signal(int number) { ::pthread_kill(thread_.native_handle(), number); }
  bool done() const { return done_; }
  int result() const { return result_; }

 private:
  std::thread thread_;
  std::atomic<int> result_ = 0;
  std::atomic<bool> done_ = false;
};

class FrontMount {
 public:
  /// `options` as in FrontMountMain.cpp.
  explicit FrontMount(const std::vector<std::string>& options);
  ~FrontMount();
  FrontMount(const FrontMount&) = delete;
  FrontMount& operator=(const FrontMount&) = delete;

  const std::filesystem::path& mountPoint() const { return mountPoint_; }
  std::filesystem::path objects() const { return directory_.path() / "objects"; }
  /// Says a command and returns the answer's value.
  platform::Json say(const platform::Json& words);

 private:
  support::TemporaryDirectory directory_;
  std::filesystem::path mountPoint_;
  std::unique_ptr<Child> host_;
};

/// Mounts before each test; after it, the mount must have been given back everything that it had open.
class FrontTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  virtual std::vector<std::string> options() const { return {}; }

  std::filesystem::path at(const std::string& name) const { return mount_->mountPoint() / name; }
  template <class... Words>
  platform::Json say(const Words&... words) {
    return mount_->say(platform::Json::array({words...}));
  }
  int asked(const std::string& operation) { return say("asked", operation); }
  /// Waits until `operation` was asked for once more than `before`.
  void waitUntilAsked(const std::string& operation, int before);
  FrontMount& mount() { return *mount_; }

 private:
  std::unique_ptr<FrontMount> mount_;
};

}  // namespace kestrune::mounttest
