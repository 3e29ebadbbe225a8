// The sizes that the service accepts.
#pragma once

#include <cstdint>

namespace kestrune::service {

/// One upload, in one request or in parts: 5 TiB, as common object stores have it.
inline constexpr std::uint64_t kMaxUploadBytes = 5ULL << 40U;

}  // namespace kestrune::service
