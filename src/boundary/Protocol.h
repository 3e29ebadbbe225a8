// The version of what Boundary.capnp says. Two programs that were built from different versions refuse each other with a clear
// error instead of misunderstanding each other.
#pragma once

#include <cstdint>

namespace kestrune::boundary {

inline constexpr std::uint32_t kProtocolVersion = 1;

}  // namespace kestrune::boundary
