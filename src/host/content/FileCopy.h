// Bytes from one open file into another, at the same offsets, in the way that costs least on the file system below:
// sharing blocks where it can, copying in the kernel elsewhere, reading and writing where that is refused.
//
// Threads: plain functions. Blocks for the local disk. Fails: throws NSPOSIXError; part of the bytes may be there then.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "host/content/Ranges.h"

namespace kestrune::host {

/// Copies the bytes of `range`. Throws EIO if `from` ends before the range does.
void copyBytes(int from, int to, ByteRange range);

/// Makes `to`, which is empty, `sizeBytes` long with what `from` has up to there. What is a hole in `from` is one in `to`.
void copyWithHoles(int from, int to, std::int64_t sizeBytes);

/// Makes `to`, which is empty, share all blocks of `from`. False if the file system cannot do that.
bool shareBlocks(int from, int to);

/// Writes all of `bytes` from `offset` on.
void writeBytes(int file, std::int64_t offset, std::span<const std::byte> bytes);

}  // namespace kestrune::host
