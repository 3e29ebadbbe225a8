// One item as the database keeps it: what it is here, what it is known to be at the store, and its contents.
//
// Threads: values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "host/basics/FileTime.h"
#include "host/basics/Place.h"
#include "host/content/ContentState.h"
#include "platform/file_provider/NSFileProviderTypes.h"
#include "platform/values/Date.h"

namespace kestrune::host {

/// An item as it was last known to be at the store.
struct ThereState {
  platform::NSFileProviderItemIdentifier identifier;
  ItemId folder = kRootNode;
  std::string name;
  platform::NSFileProviderItemVersion version;
  std::int64_t sizeBytes = 0;
  platform::Date modified{};
  platform::NSFileProviderContentPolicy policy = platform::NSFileProviderContentPolicy::inherited;
  /// Sent from here, and not looked at since: the version is the extension's guess, and `modified` when the sending began.
  bool isProvisional = false;
  /// Told by an enumeration to be gone, and not believed yet.
  bool isHeldDeletion = false;
  bool operator==(const ThereState&) const = default;
};

struct ContentRow {
  ContentState state;
  /// The content version at the store from which the changes here began: what is there now must be this, or both sides
  /// changed. Means nothing while there are no changes.
  std::string base;
  /// Up to which edits the store has them.
  std::uint64_t sentEdits = 0;
  /// When a sending began of which it is not known how it ended, in seconds since 1970, and what it carried; 0 if there is none.
  std::int64_t sendingSince = 0;
  std::int64_t sendingBytes = 0;
  std::uint64_t sendingEdits = 0;
  /// When it was last open.
  std::int64_t usedSeconds = 0;
  bool operator==(const ContentRow&) const = default;
};

struct FolderRow {
  /// All of its names are known.
  bool isEnumerated = false;
  /// It was moved: what is in it may have other identifiers now, to be found out by names.
  bool hasStaleIdentifiers = false;
  /// From where its changes are asked; none if the extension has no anchors.
  std::optional<platform::NSFileProviderSyncAnchor> anchor;
  bool operator==(const FolderRow&) const = default;
};

struct ItemRow {
  ItemId id = 0;
  bool isFolder = false;
  /// False: it was removed here, and is still to be removed at the store or open somewhere.
  bool isLinked = true;
  /// Its place here, or its last one.
  ItemId folder = kRootNode;
  std::string name;
  bool isExecutable = false;
  /// The extension does not take it: it is kept here and never sent.
  bool staysHere = false;
  std::int64_t sizeBytes = 0;
  FileTime modified;
  FileTime changed;
  std::optional<ThereState> there;
  /// Where a change that began may have put it at the store, until it is known whether it did.
  std::optional<Place> awaited;
  std::optional<ContentRow> content;  // of files that have any here
  std::optional<FolderRow> listing;   // of folders
  bool operator==(const ItemRow&) const = default;
};

}  // namespace kestrune::host
