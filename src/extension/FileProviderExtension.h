// The extension's principal class: a host creates one object per domain and calls it from any
// thread.
//
// It owns what its operations share: the domain and its manager, the session on which contents move
// (one hour of time-outs, at most 32 connections a host: large parts and whole files go through
// it), the prefetch tracker, and the addresses of what is being streamed. All are set once in the constructor. Each operation returns its
// progress at once and runs as a task of its own, which keeps what it needs; so the object may go
// while tasks still run.
//
// States: created, serving, invalidated (transfers on the session fail as cancelled; metadata still
// works), destroyed.
#pragma once

#include <memory>

#include "platform/file_provider/ContentStreaming.h"
#include "platform/file_provider/NSFileProviderManager.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/net/URLSession.h"
#include "platform/tasks/Task.h"
#include "platform/values/Date.h"
#include "transfer/ContentAddresses.h"
#include "transfer/PrefetchTracker.h"

namespace kestrune {

class FileProviderExtension final : public platform::NSFileProviderReplicatedExtension,
                                    public platform::NSFileProviderCustomAction,
                                    public platform::NSFileProviderPartialContentFetching,
                                    public platform::ContentStreaming {
 public:
  /// What the extension takes from outside beside its domain; the defaults are the real ones.
  struct Services {
    /// Read by the prefetch tracker, and by what remembers addresses.
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

  /// The bytes asked for and some read ahead, of the present remote contents, whatever version was
  /// asked for. Cancelling the progress does not stop it. Ends the process if the end of the range
  /// does not fit 64 bits.
  platform::NSProgressPtr fetchPartialContents(
      platform::NSFileProviderItemIdentifier itemIdentifier,
      platform::NSFileProviderItemVersion requestedVersion, platform::NSFileProviderRequest request,
      platform::NSRange minimalRange, std::int64_t alignment,
      platform::NSFileProviderFetchContentsOptions options,
      PartialContentsHandler completionHandler) override;

  /// No more than the bytes asked for, and no other version's: a version that went is an error.
  platform::NSProgressPtr streamContents(platform::NSFileProviderItemIdentifier itemIdentifier,
                                         platform::NSFileProviderItemVersion requestedVersion,
                                         platform::NSFileProviderRequest request,
                                         platform::NSRange range, BytesHandler bytes,
                                         EndHandler completionHandler) override;

  /// A folder or an upload. Names that operating systems scatter into folders are refused before
  /// the call returns, with NSFileProviderError noSuchItem.
  platform::NSProgressPtr createItem(platform::NSFileProviderItemPtr itemTemplate,
                                     platform::NSFileProviderItemFields fields,
                                     std::optional<std::filesystem::path> url,
                                     platform::NSFileProviderCreateItemOptions options,
                                     platform::NSFileProviderRequest request,
                                     ChangeHandler completionHandler) override;

  /// A move, new contents, or both; the last writer wins.
  platform::NSProgressPtr modifyItem(platform::NSFileProviderItemPtr item,
                                     platform::NSFileProviderItemVersion baseVersion,
                                     platform::NSFileProviderItemFields changedFields,
                                     std::optional<std::filesystem::path> newContents,
                                     platform::NSFileProviderModifyItemOptions options,
                                     platform::NSFileProviderRequest request,
                                     ChangeHandler completionHandler) override;

  /// One request, whatever the item is; a success if it is gone already.
  platform::NSProgressPtr deleteItem(platform::NSFileProviderItemIdentifier identifier,
                                     platform::NSFileProviderItemVersion baseVersion,
                                     platform::NSFileProviderDeleteItemOptions options,
                                     platform::NSFileProviderRequest request,
                                     DoneHandler completionHandler) override;

  /// Identifiers that end with "copy-share-link", "make-online-only" or "download-now"; others do
  /// nothing.
  platform::NSProgressPtr performAction(
      std::string actionIdentifier,
      std::vector<platform::NSFileProviderItemIdentifier> itemIdentifiers,
      DoneHandler completionHandler) override;

  /// A new enumerator at each call; never throws.
  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator(
      platform::NSFileProviderItemIdentifier containerItemIdentifier,
      platform::NSFileProviderRequest request) override;

 private:
  const platform::NSFileProviderDomainPtr domain_;
  const std::shared_ptr<platform::NSFileProviderManager> manager_;
  const std::shared_ptr<platform::URLSession> session_;
  const std::shared_ptr<PrefetchTracker> prefetcher_;
  const std::shared_ptr<ContentAddresses> addresses_;
  const std::shared_ptr<platform::Sleeper> sleeper_;
};

}  // namespace kestrune
