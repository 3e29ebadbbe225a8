// A store in memory mounted by another process: what a test of the mount works on.
//
// The host is a child of the test; its commands are those of FakeMountMain.cpp. Whatever a test leaves behind, the host is
// ended and the mount taken away.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/values/Json.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::mounttest {

/// A child process of the test, ended at the latest when the object goes.
class Child {
 public:
  /// Starts `program` (looked for in PATH) with its standard input and output connected to the test.
  explicit Child(std::vector<std::string> arguments);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  void writeLine(const std::string& line);
  /// The next line of its output; throws when it ends or the deadline passes first.
  std::string readLine();
  void signal(int number);
  /// Its wait status; nothing if it has not ended when the deadline passes.
  std::optional<int> waitForEnd(std::chrono::milliseconds deadline = std::chrono::seconds(20));

 private:
  pid_t pid_ = 0;
  int input_ = -1;
  int output_ = -1;
  std::string pending_;
  std::optional<int> status_;
};

class MountedStore {
 public:
  /// Mounts; throws if the host says why it cannot.
  MountedStore();
  ~MountedStore();
  MountedStore(const MountedStore&) = delete;
  MountedStore& operator=(const MountedStore&) = delete;

  std::filesystem::path operator/(const std::string& name) const { return mountPoint_ / name; }
  const std::filesystem::path& mountPoint() const { return mountPoint_; }
  Child& host() { return *host_; }
  /// The arguments with which another host would mount at the same place.
  std::vector<std::string> hostArguments() const;
  /// Ends the present host, if any, and starts another at the same place.
  void mountAgain();
  /// Whether something is mounted there, by the kernel's own table.
  bool isMounted() const;

  /// Says a command and returns the answer's value.
  template <class... Words>
  platform::Json say(const Words&... words) {
    return command(platform::Json::array({words...}));
  }
  /// Announces what was said and waits until the host has asked for the changes of `folder`.
  void announce(const std::string& folder = "/");

 private:
  platform::Json command(const platform::Json& words);
  void start();

  support::TemporaryDirectory directory_;
  std::filesystem::path mountPoint_;
  std::unique_ptr<Child> host_;
};

/// Null if mounting can work here, else what is missing.
const char* whyNoMount();

}  // namespace kestrune::mounttest
