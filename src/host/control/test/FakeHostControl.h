// A host in the test's hands, and a client that sends any bytes to its control socket.
#pragma once

#include <deque>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/control/ControlServer.h"
#include "host/control/ControlSocket.h"
#include "host/control/HostControl.h"
#include "platform/values/Json.h"
#include "platform/values/Mutex.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host {

/// Answers at once unless it is told to hold its answers. Paths that were not set are unknown.
///
/// Threads: every operation may be called from any thread.
class FakeHostControl final : public HostControl {
 public:
  void status(Reply<HostStatus> reply) override;
  void condition(Reply<HostCondition> reply) override;
  void pending(std::string path, std::size_t most, Reply<PendingChanges> reply) override;
  void tryNow(std::string path, Reply<Done> reply) override;
  void act(ItemAction action, std::vector<std::string> paths, Reply<Each<Done>> reply) override;
  void links(std::vector<std::string> paths, Reply<Each<std::string>> reply) override;
  void states(std::vector<std::string> paths, Reply<Each<ItemState>> reply) override;
  void reasons(std::vector<std::string> paths, Reply<Each<ItemReasons>> reply) override;
  void recentLog(Reply<std::vector<std::string>> reply) override;
  void end(Reply<Done> reply) override;
  void folderStates(std::string folder, Reply<std::vector<EntryState>> reply) override;
  void watch(std::function<void()> wake) override;
  HostChanges takeChanges() override;
  void restart(Reply<Done> reply) override;
  void allowDeletions(Reply<std::uint64_t> reply) override;
  void keepDeleted(Reply<std::uint64_t> reply) override;

  void setStatus(HostStatus status);
  /// What is told of a path that is known by `setPending`.
  void setReasons(const std::string& path, ItemReasons reasons);
  void setLog(std::vector<std::string> lines);
  /// What is done when somebody has it end, before that is answered.
  void setEnd(std::function<void()> end);
  void setEntries(const std::string& folder, std::vector<EntryState> entries);
  /// To be taken by who watches, who is woken.
  void change(HostChanges changes);
  bool isWatched() const;
  /// What is pending below `path`, which is known from now on.
  void setPending(const std::string& path, PendingChanges pending);
  /// From now on nothing is answered before `release`.
  void hold();
  /// Answers all that was held, on this thread.
  void release();
  std::size_t heldCount() const;
  /// What was asked: "pin /a /b".
  std::vector<std::string> calls() const;
  std::size_t callCount(std::string_view call) const;

 private:
  template <class T>
  void answer(std::string call, const Reply<T>& reply, Answer<T> answer);
  template <class T>
  Each<T> each(const std::vector<std::string>& paths,
               const std::function<T(const std::string&)>& of);
  platform::NSErrorPtr whyUnknown(const std::string& path) const;

  mutable platform::Mutex mutex_;
  HostStatus status_ GUARDED_BY(mutex_);
  std::map<std::string, std::vector<EntryState>> entries_ GUARDED_BY(mutex_);
  std::function<void()> wake_ GUARDED_BY(mutex_);
  HostChanges changes_ GUARDED_BY(mutex_);
  std::map<std::string, PendingChanges> pending_ GUARDED_BY(mutex_);
  std::map<std::string, ItemReasons> reasons_ GUARDED_BY(mutex_);
  std::vector<std::string> log_ GUARDED_BY(mutex_);
  std::function<void()> end_ GUARDED_BY(mutex_);
  bool holds_ GUARDED_BY(mutex_) = false;
  std::deque<std::function<void()>> held_ GUARDED_BY(mutex_);
  std::vector<std::string> calls_ GUARDED_BY(mutex_);
};

/// A connection that says any bytes.
class RawClient {
 public:
  explicit RawClient(const std::filesystem::path& socketFile);
  void send(std::string_view bytes) const;
  /// "I send no more."
  void endSending() const;
  void close() { connection_.reset(); }
  /// The next line; nothing at the end of the connection. Throws when none comes in time.
  std::optional<platform::Json> readLine();
  /// Sends a line and reads one.
  platform::Json ask(const std::string& line);
  /// The error that the next line holds.
  std::string readError();

 private:
  std::unique_ptr<Descriptor> connection_;
  std::string unread_;
};

/// A server on a fake host.
struct ControlledHost {
  explicit ControlledHost(std::chrono::milliseconds patience = std::chrono::seconds(30),
                          std::size_t mostClients = 32);
  std::filesystem::path file() const { return directory.path() / "control" / "main.sock"; }
  ControlOptions options() const;
  void end() { server.reset(); }

  support::TemporaryDirectory directory;
  FakeHostControl control;
  std::unique_ptr<ControlServer> server;
};

PendingChange pendingSend(const std::string& path, const std::string& reason = {});

}  // namespace kestrune::host
