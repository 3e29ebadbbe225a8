// What an item is known to be at the store, and its name here, which is mostly the same as there: one block of bytes, so that a
// million items fit into memory. Names and versions that are alike are kept once, numbers as short as they are, and the
// identifier as a shared prefix and the name where it is such.
//
// It reads like an optional ThereState. What it shows lies in the block and is gone when something of it is set: who needs it longer, or
// changes it, takes a ThereState.
//
// Threads: none of its own, as Item.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "host/store/ItemRow.h"
#include "host/tree/IdentifierPrefix.h"
#include "host/tree/Text.h"

namespace kestrune::host {

struct VersionView {
  Text contentVersion;
  Text metadataVersion;
  // NOLINTNEXTLINE(google-explicit-constructor): whoever keeps it means a copy
  operator platform::NSFileProviderItemVersion() const { return {contentVersion, metadataVersion}; }
};

/// As ThereState.
struct ThereView {
  IdentifierView identifier;
  ItemId folder = kRootItem;
  Text name;
  VersionView version;
  std::int64_t sizeBytes = 0;
  platform::Date modified{};
  platform::NSFileProviderContentPolicy policy = platform::NSFileProviderContentPolicy::inherited;
  bool isProvisional = false;
  bool isHeldDeletion = false;

  bool operator==(const ThereState& state) const;
  // NOLINTNEXTLINE(google-explicit-constructor): whoever keeps it means a copy
  operator ThereState() const {
    return {identifier, folder, name,          version,       sizeBytes,
            modified,   policy, isProvisional, isHeldDeletion};
  }
};

class There {
 public:
  There() = default;
  ~There();
  There(const There&) = delete;
  There& operator=(const There&) = delete;

  bool has_value() const;
  explicit operator bool() const { return has_value(); }
  /// REQUIRES: has_value().
  ThereView operator*() const;
  /// REQUIRES: has_value().
  auto operator->() const {
    struct Arrow {
      ThereView view;
      const ThereView* operator->() const { return &view; }
    };
    return Arrow{**this};
  }

  /// `prefix` is one that other items use, or null; it becomes another one where this item begins another.
  void set(const ThereState& state, IdentifierPrefixPtr& prefix);
  /// With the item's name here.
  void set(std::string_view nameHere, const ThereState& state, IdentifierPrefixPtr& prefix);
  void reset();

  /// The item's name here.
  Text nameHere() const;
  void setNameHere(std::string_view name);

 private:
  struct Parts;
  class Reader;

  Parts parts() const;
  void pack(const Parts& parts);

  std::unique_ptr<char[]> block_;
};

}  // namespace kestrune::host
