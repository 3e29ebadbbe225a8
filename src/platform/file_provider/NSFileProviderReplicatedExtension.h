// The protocols that an extension implements and a host calls. Method names and argument order are
// the platform's.
//
// Every operation returns its progress at once and calls its completion handler exactly once, from
// any thread, possibly before it returns. Handlers must not throw. Operations may be called from
// any thread and run side by side.
//
// Files that pass between the two sides are local paths. One that the extension hands over belongs
// to the host from then on; it lies in the temporary directory, which is on the host's own file
// system, so that taking it is a rename. One that the host hands in stays the host's and does not
// change until the completion handler has been called.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/file_provider/NSFileProviderEnumerator.h"
#include "platform/file_provider/NSFileProviderItem.h"
#include "platform/progress/NSProgress.h"

namespace kestrune::platform {

using NSProgressPtr = std::shared_ptr<NSProgress>;

class NSFileProviderReplicatedExtension {
 public:
  /// Exactly one of item and error is set.
  using ItemHandler = std::function<void(NSFileProviderItemPtr item, NSErrorPtr error)>;
  /// Either file and item are set, or the error.
  using ContentsHandler = std::function<void(std::optional<std::filesystem::path> url,
                                             NSFileProviderItemPtr item, NSErrorPtr error)>;
  /// The item as it is now on the remote side, the fields that were not applied, whether the host
  /// should fetch the contents again, or the error.
  using ChangeHandler =
      std::function<void(NSFileProviderItemPtr item, NSFileProviderItemFields stillPendingFields,
                         bool shouldFetchContent, NSErrorPtr error)>;
  using DoneHandler = std::function<void(NSErrorPtr error)>;

  virtual ~NSFileProviderReplicatedExtension() = default;

  /// The host is done with this instance. Running operations still complete, mostly with an error.
  virtual void invalidate() = 0;

  /// The present metadata of one item.
  virtual NSProgressPtr item(NSFileProviderItemIdentifier identifier, NSFileProviderRequest request,
                             ItemHandler completionHandler) = 0;

  /// The whole contents of one file, as a local file.
  virtual NSProgressPtr fetchContents(NSFileProviderItemIdentifier itemIdentifier,
                                      std::optional<NSFileProviderItemVersion> requestedVersion,
                                      NSFileProviderRequest request,
                                      ContentsHandler completionHandler) = 0;

  /// A new item, made locally. `url` holds the contents of a file.
  /// An extension that does not override this (or the next two) is read-only: it answers with
  /// NSCocoaError featureUnsupported on the caller's thread, as the platform recommends for
  /// operations that are not offered.
  virtual NSProgressPtr createItem(NSFileProviderItemPtr itemTemplate,
                                   NSFileProviderItemFields fields,
                                   std::optional<std::filesystem::path> url,
                                   NSFileProviderCreateItemOptions options,
                                   NSFileProviderRequest request, ChangeHandler completionHandler);

  /// An item changed locally; `item` carries its new values, `changedFields` says which.
  /// `newContents` with `contents`.
  virtual NSProgressPtr modifyItem(NSFileProviderItemPtr item,
                                   NSFileProviderItemVersion baseVersion,
                                   NSFileProviderItemFields changedFields,
                                   std::optional<std::filesystem::path> newContents,
                                   NSFileProviderModifyItemOptions options,
                                   NSFileProviderRequest request, ChangeHandler completionHandler);

  /// An item deleted locally.
  virtual NSProgressPtr deleteItem(NSFileProviderItemIdentifier identifier,
                                   NSFileProviderItemVersion baseVersion,
                                   NSFileProviderDeleteItemOptions options,
                                   NSFileProviderRequest request, DoneHandler completionHandler);

  /// A new enumerator of one container. Throws NSError if there is none.
  virtual std::shared_ptr<NSFileProviderEnumerator> enumerator(
      NSFileProviderItemIdentifier containerItemIdentifier, NSFileProviderRequest request) = 0;
};

class NSFileProviderPartialContentFetching {
 public:
  /// A sparse file of the item's whole length in which `range` is present; or the error, with range
  /// 0/0.
  using PartialContentsHandler = std::function<void(
      std::optional<std::filesystem::path> url, NSFileProviderItemPtr item, NSRange range,
      NSFileProviderMaterializationFlags flags, NSErrorPtr error)>;

  virtual ~NSFileProviderPartialContentFetching() = default;

  /// At least `minimalRange` (in bytes) of one file, its ends on multiples of `alignment` or at the
  /// file's end.
  virtual NSProgressPtr fetchPartialContents(NSFileProviderItemIdentifier itemIdentifier,
                                             NSFileProviderItemVersion requestedVersion,
                                             NSFileProviderRequest request, NSRange minimalRange,
                                             std::int64_t alignment,
                                             NSFileProviderFetchContentsOptions options,
                                             PartialContentsHandler completionHandler) = 0;
};

class NSFileProviderCustomAction {
 public:
  virtual ~NSFileProviderCustomAction() = default;

  /// Runs a context-menu action on items.
  virtual NSProgressPtr performAction(
      std::string actionIdentifier, std::vector<NSFileProviderItemIdentifier> itemIdentifiers,
      NSFileProviderReplicatedExtension::DoneHandler completionHandler) = 0;
};

}  // namespace kestrune::platform
