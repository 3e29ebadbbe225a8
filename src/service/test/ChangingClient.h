// A client that changes its own part of a store at random, and knows what the store must hold
// afterwards: the state that all confirmed requests led to or, if the service was killed while a
// request had no answer, that state or the one that the request leads to. Nothing in between.
//
// Its part of the tree is "/client N", which must exist, and what is called "N-…" in "/shared".
//
// Threads: `run` on one thread; the others when it has returned.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "service/test/Client.h"
#include "service/test/StoreState.h"

namespace kestrune::service {

enum class ChangeKind {
  put,
  replace,
  putObject,
  complete,
  import,
  moveFile,
  moveFolder,
  makeFolder,
  removeFile,
  removeFolder
};
inline constexpr ChangeKind kAllChanges[] = {
    ChangeKind::put,        ChangeKind::replace,     ChangeKind::putObject,  ChangeKind::complete,
    ChangeKind::import,     ChangeKind::moveFile,    ChangeKind::moveFolder, ChangeKind::makeFolder,
    ChangeKind::removeFile, ChangeKind::removeFolder};
const char* nameOf(ChangeKind kind);

/// What all clients of a service share.
struct Surroundings {
  std::uint16_t port = 0;
  std::string token;
  /// Set just before the service is killed: from then on connections may end.
  std::atomic<bool> killed = false;
  std::atomic<int> confirmed = 0;
  /// Set when a client has met something that must not be.
  std::atomic<bool> failed = false;
};

class ChangingClient {
 public:
  /// What became of a request that the kill left without an answer.
  struct Interrupted {
    ChangeKind kind;
    bool happened;
  };

  ChangingClient(int number, unsigned seed);

  const std::string& folder() const { return folder_; }

  /// Makes changes until the service is killed. What must not be is kept as a failure.
  void run(Surroundings& surroundings);

  /// Takes the part that is this client's out of `disk` and takes it for the present state. Adds to
  /// the failure if it is none that may be. Nothing if every request was answered or was begun
  /// after the kill.
  std::optional<Interrupted> settle(StoreState& disk);

  /// What was wrong; empty if nothing.
  const std::string& failure() const { return failure_; }

 private:
  struct OpenChange {
    ChangeKind kind;
    StoreState after;
    bool begunBeforeKill;
  };

  void changeAtRandom();
  void put();
  void upload();
  std::string uploadObject(const std::string& path, const Contents& contents);
  std::string uploadParts(const std::string& path, const Contents& contents);
  void import(const std::string& key, const std::string& path);
  void makeFolder();
  void move(bool folder);
  void remove(bool folder);

  /// A request that leads to `after`; it must succeed.
  Answer attempt(ChangeKind kind, StoreState after, const std::string& method,
                 const std::string& target, const std::string& body);
  /// A request that changes nothing that is to be seen; it must succeed.
  Answer ask(const std::string& method, const std::string& target, const std::string& body);
  platform::Json post(const std::string& endpoint, const platform::Json& body);

  bool isMine(const std::string& path) const;
  int below(int bound);
  bool oneIn(int count) { return below(count) == 0; }
  Contents newContents();
  std::string newPath(const std::string& parent);
  /// A folder that items may be put into, outside of `folder`.
  std::string someParent(const std::string& folder = {});
  /// One of the files, or of the folders but the own one; nothing if there is none.
  std::optional<std::string> someItem(bool folder);

  const int number_;
  const std::string folder_;
  std::mt19937 random_;
  int named_ = 0;
  StoreState state_;
  std::optional<OpenChange> open_;
  Surroundings* surroundings_ = nullptr;
  std::optional<Client> client_;
  std::string failure_;
};

}  // namespace kestrune::service
