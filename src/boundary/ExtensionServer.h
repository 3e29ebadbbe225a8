// The program's end: serves one extension to the host behind a socket.
//
// Threads: the extension and its factory are called on the shared executor, or on a thread that counts as one of it (Loop::callOut).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/file_provider/NSFileProviderManager.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/pasteboard/NSPasteboard.h"

namespace kestrune::boundary {

/// What an extension may ask of its host, as objects that pass it on.
struct RemoteHost {
  std::shared_ptr<platform::NSFileProviderManager> manager;
  /// Waits for the host's answer: not for threads that others wait for.
  std::shared_ptr<platform::NSPasteboard> pasteboard;
};

using ExtensionMaker = std::function<std::shared_ptr<platform::NSFileProviderReplicatedExtension>(
    platform::NSFileProviderDomainPtr domain, RemoteHost host)>;

class ExtensionServer {
 public:
  /// Serves from now on. `socket` is this object's. `ended` is called once, on a thread of its own, when the host has gone; not
  /// after the destructor has begun. `notEnforced`: what of its confinement the program could not have. Throws NSPOSIXError.
  ExtensionServer(int socket, ExtensionMaker makeExtension, std::function<void()> ended,
                  std::vector<std::string> notEnforced = {});
  ~ExtensionServer();
  ExtensionServer(const ExtensionServer&) = delete;
  ExtensionServer& operator=(const ExtensionServer&) = delete;

 private:
  struct Serving;
  const std::shared_ptr<Serving> serving_;
};

}  // namespace kestrune::boundary
