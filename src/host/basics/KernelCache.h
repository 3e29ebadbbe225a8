// What the kernel remembers of the tree (names, attributes, folder listings), and how it is told that something is no
// longer true. The kernel may keep all of it for a long time: nobody changes the tree but the host.
//
// Threads: `tell` may be called from any thread, also with locks of the host held: it only queues. The kernel is told on
// a thread of its own, because a notification may wait for a folder's lock, which may be held by a program that waits for
// an answer of the host.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "host/basics/NodeId.h"

namespace kestrune::host {

struct CacheUpdate {
  enum class Kind {
    /// A name in `node` stands for something else or for nothing now, or came into being.
    entry,
    /// `child`, named `name` in `node`, was deleted.
    deletion,
    /// The attributes of `node` changed.
    attributes,
    /// The set of names in `node` changed, and with it its attributes.
    listing,
  };
  Kind kind;
  NodeId node;
  std::string name = {};
  NodeId child = 0;
  bool operator==(const CacheUpdate&) const = default;
};

class KernelCache {
 public:
  virtual ~KernelCache() = default;
  /// Tells the kernel in this order, then runs `then`, if any, on a thread of the cache's own choice. Failures are
  /// ignored: what the kernel does not know it need not forget.
  virtual void tell(std::vector<CacheUpdate> updates, std::function<void()> then) = 0;
};

}  // namespace kestrune::host
