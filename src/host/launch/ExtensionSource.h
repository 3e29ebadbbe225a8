// Where an extension comes from that may be gone at any time: another one is started for whoever asks next.
#pragma once

#include <functional>
#include <memory>

#include "host/basics/Answer.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace kestrune::host {

/// An extension that runs, for as long as somebody needs it: held until the calls made through it have been answered.
/// Threads: any.
class RunningExtension {
 public:
  virtual ~RunningExtension() = default;
  virtual const std::shared_ptr<platform::NSFileProviderReplicatedExtension>& extension() const = 0;
  /// Whether it was found that it runs no more.
  virtual bool isGone() const = 0;
};
using RunningExtensionPtr = std::shared_ptr<const RunningExtension>;

class ExtensionSource {
 public:
  virtual ~ExtensionSource() = default;
  /// Answers with the one that runs, or with a new one, or why there is none. Threads: callable from any thread; the reply comes
  /// on any thread, possibly before this returns.
  virtual void get(Reply<RunningExtensionPtr> reply) = 0;
  /// No more are started, and the one that runs ends. Threads: any.
  virtual void end() = 0;
};

}  // namespace kestrune::host
