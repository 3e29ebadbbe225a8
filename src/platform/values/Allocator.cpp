#include "platform/values/Allocator.h"

#include <cstdlib>  // says whether this is glibc

#if defined(__GLIBC__)
#include <malloc.h>
#endif

namespace kestrune::platform {

void keepFreedMemory() {
#if defined(__GLIBC__)
  constexpr int kKeptBytes = 8 << 20;
  // The buffers of a transfer are about 1 MiB; larger things have their own pages and give them
  // back.
  constexpr int kOwnPagesFromBytes = 4 << 20;
  mallopt(M_TRIM_THRESHOLD, kKeptBytes);
  mallopt(M_MMAP_THRESHOLD, kOwnPagesFromBytes);
#endif
}

}  // namespace kestrune::platform
