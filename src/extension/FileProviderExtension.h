// The extension's principal class: a host creates one object per domain and calls it from any
// thread.
//
// It owns what its operations share: the domain and its manager, the session on which contents move
// (one hour of time-outs, at most 32 connections a host: large parts and whole files go through
// it), and the prefetch tracker. All are set once in the constructor. Each operation returns its
// progress at once and runs as a task of its own, which keeps what it needs; so the object may go
// while tasks still run.
//
// States: created, serving, invalidated (transfers on the session fail as cancelled; metadata still
// works), destroyed.
#pragma once

#include <memory>

#include "platform/file_provider/NSFileProviderManager.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/net/URLSession.h"
#include "platform/tasks/Task.h"
#include "platform/values/Date.h"
#include "transfer/PrefetchTracker.h"

namespace kestrune {

class FileProviderExtension final : public platform::NSFileProviderReplicatedExtension {
 public:
  /// What the extension takes from outside beside its domain; the defaults are the real ones.
  struct Services {
    /// Read by the prefetch tracker.
    std::shared_ptr<const platform::Clock> clock = std::make_shared<platform::SystemClock>();
    /// Waits between attempts.
    std::shared_ptr<platform::Sleeper> sleeper = std::make_shared<platform::TimerSleeper>();
  };

  FileProviderExtension() = delete;
  /// Never fails: what is wrong with the configuration shows per request. Writes one line to the
  /// log.
  explicit FileProviderExtension(platform::NSFileProviderDomainPtr domain);
  FileProviderExtension(platform::NSFileProviderDomainPtr domain, Services services);
  FileProviderExtension(const FileProviderExtension&) = delete;
  FileProviderExtension& operator=(const FileProviderExtension&) = delete;

  static std::shared_ptr<FileProviderExtension> make(platform::NSFileProviderDomainPtr domain,
                                                     Services services);
  static std::shared_ptr<FileProviderExtension> make(platform::NSFileProviderDomainPtr domain);

  /// Cancels the transfers on the extension's own session.
  void invalidate() override;

  /// One listing request of the parent folder, except for the root, which is answered before the
  /// call returns.
  platform::NSProgressPtr item(platform::NSFileProviderItemIdentifier identifier,
                               platform::NSFileProviderRequest request,
                               ItemHandler completionHandler) override;

  /// Always the present remote contents, whatever version was asked for.
  platform::NSProgressPtr fetchContents(
      platform::NSFileProviderItemIdentifier itemIdentifier,
      std::optional<platform::NSFileProviderItemVersion> requestedVersion,
      platform::NSFileProviderRequest request, ContentsHandler completionHandler) override;

  /// A new enumerator at each call; never throws.
  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator(
      platform::NSFileProviderItemIdentifier containerItemIdentifier,
      platform::NSFileProviderRequest request) override;

 private:
  const platform::NSFileProviderDomainPtr domain_;
  const std::shared_ptr<platform::NSFileProviderManager> manager_;
  const std::shared_ptr<platform::URLSession> session_;
  const std::shared_ptr<PrefetchTracker> prefetcher_;
  const std::shared_ptr<platform::Sleeper> sleeper_;
};

}  // namespace kestrune
