// Asks an extension for the whole content of one folder, or for its changes, and gathers the answer.
//
// The extension's observers may call back in many pieces and on any thread; who asks here gets one answer. An extension
// that drops its observer without a finish call has failed: nobody waits for ever. Items of a folder are capped, because
// a remote side that never ends its pages would otherwise fill the memory.
//
// Threads: callable from any thread; the extension is called on the shared executor, the reply comes on any thread.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "host/basics/Answer.h"
#include "host/in/ItemRecord.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace kestrune::host {

using ExtensionPtr = std::shared_ptr<platform::NSFileProviderReplicatedExtension>;

/// How many items one enumeration may report.
inline constexpr std::size_t kMostItems = 2'000'000;

struct Listing {
  /// As it was before the enumeration began: changes asked from it miss nothing. None if the extension has no anchors.
  std::optional<platform::NSFileProviderSyncAnchor> anchor;
  std::vector<ItemRecord> items;
  /// The same items, for what costs more to read than a listing may wait for.
  std::vector<platform::NSFileProviderItemPtr> described;
  /// It came in pages, and the anchor moved meanwhile: of what stood behind something that went between two pages, some may be
  /// missing.
  bool mayHaveGaps = false;
};

/// Every page of the content of `folder`, in the extension's order.
void enumerateFolder(ExtensionPtr extension, platform::NSFileProviderItemIdentifier folder,
                     Reply<Listing> reply);

struct ChangeSet {
  std::vector<ReportedChange> changes;
  /// The items of the updates, as in Listing.
  std::vector<platform::NSFileProviderItemPtr> described;
  platform::NSFileProviderSyncAnchor anchor;
  bool moreComing = false;
};

/// The changes of `folder` since `anchor`.
void enumerateFolderChanges(ExtensionPtr extension, platform::NSFileProviderItemIdentifier folder,
                            platform::NSFileProviderSyncAnchor anchor, Reply<ChangeSet> reply);

/// How far the changes of `folder` have come.
void askSyncAnchor(ExtensionPtr extension, platform::NSFileProviderItemIdentifier folder,
                   Reply<std::optional<platform::NSFileProviderSyncAnchor>> reply);

}  // namespace kestrune::host
