// How much freed memory a process keeps for itself.
#pragma once

namespace kestrune::platform {

/// For programs that move contents: keeps up to 8 MiB of freed memory in each of the allocator's
/// arenas, instead of giving it back and asking for it again with each transfer. Fresh memory costs
/// a page fault for every 4 KiB, on virtual machines 20 microseconds each: 1 GiB fetched in 17 MiB
/// ranges took twice as long as with memory that was kept. Call it first in `main`; does nothing
/// where the C library has no such setting.
void keepFreedMemory();

}  // namespace kestrune::platform
