// Answers the programs of the user who mounted: reads requests from the control socket, puts them to the host, and writes
// the answers (ControlRequest.h, ControlAnswer.h). A client may ask one thing after the other; the next line is read when
// the one before has been answered.
//
// One thread serves all clients and waits for none of them: at most `mostClients` are connected, one that neither sends a
// whole line nor takes its answer within `patience` is dropped, and so is one that sends a line beyond 1 MiB. When a client
// goes away, what it waited for is no longer waited for; what it has set in motion goes on.
//
// "sync" with "wait" looks again and again what is left, at growing intervals of at most a second.
//
// Threads: `kes-control` of its own; constructor and destructor on any other. The host's replies may come from any thread,
// also after the end: they then go nowhere.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>

#include "host/control/ControlLetter.h"
#include "host/control/ControlSocket.h"
#include "host/control/HostControl.h"

namespace kestrune::host {

struct ControlOptions {
  /// Where to listen: a name in a folder that is the user's own and holds nothing but sockets of hosts.
  std::filesystem::path socketFile;
  /// What "about" and "status" tell of the host. The mount point is absolute and without links, as the kernel's table of
  /// mounts has it: that is how programs find the host of a path.
  std::filesystem::path mountPoint;
  std::string domainIdentifier;
  /// Of the program, and how often it was replaced without the folder going away.
  std::string version = {};
  std::uint64_t restarts = 0;
  /// How long programs waited for the last replacement; 0 without one.
  std::chrono::milliseconds standstill{0};
  /// Where the host keeps what it has; empty: not told.
  std::filesystem::path replica = {};
  std::size_t mostClients = 32;
  std::chrono::milliseconds patience = std::chrono::seconds(30);
};

class ControlServer {
 public:
  /// Listens when it returns; `control` outlives the object. Throws NSPOSIXError as ControlSocket does.
  ControlServer(ControlOptions options, HostControl& control);
  /// Tells clients that wait that the host ends, and removes the socket. Nothing is asked of `control` afterwards.
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

 private:
  class Loop;
  const std::shared_ptr<ControlMailbox> mailbox_;
  const std::unique_ptr<Loop> loop_;
  std::thread thread_;
};

}  // namespace kestrune::host
