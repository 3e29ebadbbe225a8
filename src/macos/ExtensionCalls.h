// Calls of our extension that end well whatever happens in it: no exception comes out, and every
// completion handler and observer is answered exactly once. A call that throws answers with what it
// threw; one whose handler is dropped without an answer answers with a cancellation; a second answer
// is dropped. The platform keeps a user's operation open until it is answered, and ends a process
// that an exception leaves.
//
// Plain C++: these functions may catch, which Objective-C++ may not on every runtime.
//
// Threads: as the protocols say (platform/file_provider).
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace kestrune::macos {

/// The three protocols of one extension object.
struct Extension {
  std::shared_ptr<platform::NSFileProviderReplicatedExtension> replicated;
  std::shared_ptr<platform::NSFileProviderCustomAction> actions;
  std::shared_ptr<platform::NSFileProviderPartialContentFetching> partial;
};

/// The real extension, for a domain.
Extension makeExtension(std::string domainIdentifier, std::string displayName) noexcept;

using Replicated = platform::NSFileProviderReplicatedExtension;

void invalidate(const Extension& extension) noexcept;

platform::NSProgressPtr item(const Extension& extension,
                             platform::NSFileProviderItemIdentifier identifier,
                             platform::NSFileProviderRequest request,
                             Replicated::ItemHandler completionHandler) noexcept;

platform::NSProgressPtr fetchContents(
    const Extension& extension, platform::NSFileProviderItemIdentifier identifier,
    std::optional<platform::NSFileProviderItemVersion> requestedVersion,
    platform::NSFileProviderRequest request,
    Replicated::ContentsHandler completionHandler) noexcept;

/// What `fetchPartialContents` is asked for.
struct PartialFetchCall {
  platform::NSFileProviderItemIdentifier identifier;
  platform::NSFileProviderItemVersion requestedVersion;
  platform::NSFileProviderRequest request;
  platform::NSRange minimalRange;
  std::int64_t alignment = 1;
  platform::NSFileProviderFetchContentsOptions options;
};
platform::NSProgressPtr fetchPartialContents(
    const Extension& extension, PartialFetchCall call,
    platform::NSFileProviderPartialContentFetching::PartialContentsHandler
        completionHandler) noexcept;

/// What `createItem` is asked for.
struct CreationCall {
  platform::NSFileProviderItemPtr itemTemplate;
  platform::NSFileProviderItemFields fields;
  std::optional<std::filesystem::path> contents;
  platform::NSFileProviderCreateItemOptions options;
  platform::NSFileProviderRequest request;
};
platform::NSProgressPtr createItem(const Extension& extension, CreationCall call,
                                   Replicated::ChangeHandler completionHandler) noexcept;

/// What `modifyItem` is asked for.
struct ModificationCall {
  platform::NSFileProviderItemPtr item;
  platform::NSFileProviderItemVersion baseVersion;
  platform::NSFileProviderItemFields changedFields;
  std::optional<std::filesystem::path> newContents;
  platform::NSFileProviderModifyItemOptions options;
  platform::NSFileProviderRequest request;
};
platform::NSProgressPtr modifyItem(const Extension& extension, ModificationCall call,
                                   Replicated::ChangeHandler completionHandler) noexcept;

platform::NSProgressPtr deleteItem(const Extension& extension,
                                   platform::NSFileProviderItemIdentifier identifier,
                                   platform::NSFileProviderItemVersion baseVersion,
                                   platform::NSFileProviderDeleteItemOptions options,
                                   platform::NSFileProviderRequest request,
                                   Replicated::DoneHandler completionHandler) noexcept;

platform::NSProgressPtr performAction(
    const Extension& extension, std::string actionIdentifier,
    std::vector<platform::NSFileProviderItemIdentifier> itemIdentifiers,
    Replicated::DoneHandler completionHandler) noexcept;

/// An enumerator, or why there is none: one of them is set.
struct MadeEnumerator {
  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator;
  platform::NSErrorPtr error;
};
MadeEnumerator makeEnumerator(const Extension& extension,
                              platform::NSFileProviderItemIdentifier container,
                              platform::NSFileProviderRequest request) noexcept;

void invalidate(platform::NSFileProviderEnumerator& enumerator) noexcept;
void enumerateItems(platform::NSFileProviderEnumerator& enumerator,
                    std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer,
                    platform::NSFileProviderPage page) noexcept;
void enumerateChanges(platform::NSFileProviderEnumerator& enumerator,
                      std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
                      platform::NSFileProviderSyncAnchor anchor) noexcept;
void currentSyncAnchor(
    platform::NSFileProviderEnumerator& enumerator,
    std::function<void(std::optional<platform::NSFileProviderSyncAnchor>)> answer) noexcept;

}  // namespace kestrune::macos
