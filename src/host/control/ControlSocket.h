// The socket at which a host is asked and told things by programs of the same user: where it lies, who may connect, and
// what becomes of it when its host dies.
//
// The socket's folder is made private (0700) and the socket too (0600); who connects all the same, because both were opened
// up, is known by the kernel (SO_PEERCRED) and turned away unless it is the same user or root. Beside the socket lies a lock
// ("main.sock.lock") that a host holds for its life, so a socket without a holder is stale, whatever else is true of it, and
// is replaced. The lock's file stays: removing it would let two hosts hold one each.
//
// Threads: belongs to one thread. Owns: the socket's name, which goes with the object.
#pragma once

#include <filesystem>
#include <memory>

#include "host/basics/LocalFile.h"

namespace kestrune::host {

class ControlSocket {
 public:
  /// Listens at `file`. Throws NSPOSIXError: EADDRINUSE while another host holds it, EEXIST where something that is no
  /// socket lies in the place, EPERM where the folder is another user's.
  explicit ControlSocket(const std::filesystem::path& file);
  ~ControlSocket();
  ControlSocket(const ControlSocket&) = delete;
  ControlSocket& operator=(const ControlSocket&) = delete;

  /// Readable when somebody connects.
  int descriptor() const { return socket_->number(); }

  struct Accepted {
    /// Non-blocking; null if there was nobody.
    std::unique_ptr<Descriptor> connection;
    bool isPermitted = false;
    /// The process has no descriptor left for who waits.
    bool isExhausted = false;
  };
  Accepted accept() const;

  /// A blocking connection to the host that listens at `file`. Throws NSPOSIXError: ENOENT and ECONNREFUSED where there
  /// is none.
  static std::unique_ptr<Descriptor> connect(const std::filesystem::path& file);

 private:
  const std::string name_;
  const std::unique_ptr<Descriptor> folder_;
  const std::unique_ptr<Descriptor> lock_;
  const std::unique_ptr<Descriptor> socket_;
};

}  // namespace kestrune::host
