// The real programs, kestrune-service and `kestrune mount`, over folders of the test's own: what a test of the whole
// works on.
//
// Each host has its own data directory, so that several look at one store as several machines do. Whatever a test leaves
// behind, the programs are ended and the mounts taken away.
//
// Threads: one, but `operator/` and the paths may be used by any.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/mount/MountedStore.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::mounttest {

/// Every file below a folder with its contents; folders end in "/" and have none. Throws std::system_error if something
/// cannot be read.
std::map<std::string, std::string> snapshotOf(const std::filesystem::path& folder);

/// What differs, a line each, at most ten; empty if nothing does.
std::string differences(const std::map<std::string, std::string>& expected,
                        const std::map<std::string, std::string>& found);

/// How a shell command ended, and what it printed on both its streams.
struct CommandResult {
  int status = -1;
  std::string output;
};
/// Runs `script` with bash in `folder`, for at most a minute.
CommandResult runIn(const std::filesystem::path& folder, const std::string& script);

/// The service: serves `root`, always at the same address, also when started again.
class LiveService {
 public:
  LiveService();
  void start();
  /// Ends it by `signal` and waits for its end.
  void end(int signal);
  void signal(int number) { program_->signal(number); }
  /// Makes a call of its API and returns curl's status.
  CommandResult call(const std::string& method, const std::string& target, const std::string& body);

  std::filesystem::path root() const { return directory_.path() / "store"; }
  std::filesystem::path tokenFile() const { return directory_.path() / "token"; }
  const std::string& address() const { return address_; }

 private:
  support::TemporaryDirectory directory_;
  std::string address_;
  std::unique_ptr<Child> program_;
};

class LiveMount {
 public:
  explicit LiveMount(const LiveService& service);
  ~LiveMount();
  LiveMount(const LiveMount&) = delete;
  LiveMount& operator=(const LiveMount&) = delete;

  std::filesystem::path operator/(const std::string& name) const { return mountPoint_ / name; }
  const std::filesystem::path& mountPoint() const { return mountPoint_; }
  std::filesystem::path logFile() const { return directory_.path() / "log"; }
  std::filesystem::path replica() const { return directory_.path() / "replica"; }
  /// Starts the host, also where a killed one left its mount; throws if the folder does not come.
  void start();
  /// Ends it by `signal` and waits for its end.
  void end(int signal);
  Child& host() { return *program_; }
  /// Which file is executed by the next `start`, instead of the `kestrune` that was built.
  void setProgram(const std::filesystem::path& file) { programFile_ = file; }
  /// From the next `start` on, as the same user in the same session.
  void shareSessionOf(const LiveMount& other) { runtimeDirectory_ = other.runtimeDirectory_; }
  bool isServed() const;
  /// The process that the host's extension runs in; 0 if it does not run.
  int extension() const;
  /// Runs `kestrune` with these words, as in a shell, in the mounted folder.
  CommandResult control(const std::string& words) const;

 private:
  std::vector<std::string> withEnvironment(const std::string& command) const;

  support::TemporaryDirectory directory_;
  std::filesystem::path mountPoint_;
  std::filesystem::path programFile_;
  std::filesystem::path runtimeDirectory_;
  std::unique_ptr<Child> program_;
};

/// Waits until the store has what the folder shows. What still differs when `deadline` has passed; else empty.
std::string waitUntilSent(const LiveService& service, const LiveMount& mount,
                          std::chrono::seconds deadline = std::chrono::seconds(60));

}  // namespace kestrune::mounttest
