// What the kernel, the host's memory and its users call an item.
#pragma once

#include <cstdint>

namespace kestrune::host {

/// What the kernel calls a node; 1 is the root and 0 is none.
using NodeId = std::uint64_t;
/// What users see as the inode number.
using InodeNumber = std::uint64_t;

/// What the host calls an item for as long as it lives, also between mounts: its inode number.
using ItemId = InodeNumber;

inline constexpr NodeId kRootNode = 1;
inline constexpr ItemId kRootItem = 1;

}  // namespace kestrune::host
