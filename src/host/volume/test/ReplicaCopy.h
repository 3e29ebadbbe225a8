// The replica as it is on the disk at one moment, as a kill leaves it.
//
// Threads: plain functions. Blocks for the local disk.
#pragma once

#include <filesystem>

namespace kestrune::host::test {

/// Makes `to` a copy of the replica at `from`, which is in use: tries until nothing changed while it was copied. Throws
/// std::runtime_error when that does not happen in time.
void copyReplica(const std::filesystem::path& from, const std::filesystem::path& to);

}  // namespace kestrune::host::test
