// Ports on 127.0.0.1 that lead nowhere, each in its own way.
//
// Linux: how a full queue of connections behaves is the kernel's own choice.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kestrune::support {

/// Refuses every connection. The port is taken for as long as the object lives, so nobody else can
/// begin to listen there.
class RefusingPort {
 public:
  RefusingPort();
  ~RefusingPort();
  RefusingPort(const RefusingPort&) = delete;
  RefusingPort& operator=(const RefusingPort&) = delete;

  std::uint16_t port() const { return port_; }
  /// "http://127.0.0.1:port"
  std::string origin() const;

 private:
  int descriptor_;
  std::uint16_t port_;
};

/// Answers nothing at all: packets of new connections are dropped, as behind a wall or on a dead
/// host.
class BlackHole {
 public:
  BlackHole();
  ~BlackHole();
  BlackHole(const BlackHole&) = delete;
  BlackHole& operator=(const BlackHole&) = delete;

  std::string origin() const;

 private:
  int listener_;
  std::uint16_t port_;
  std::vector<int> fillers_;
};

}  // namespace kestrune::support
