// What both programs know beside Boundary.capnp.
#pragma once

#include <cstdint>

namespace kestrune::boundary {

/// The version of what Boundary.capnp says. Two programs that were built from different versions refuse each other with a clear
/// error instead of misunderstanding each other.
inline constexpr std::uint32_t kProtocolVersion = 3;

/// Items, or identifiers of deleted ones, in one message of an enumeration. More are refused: an item that takes up a word on the
/// way takes up a thousand bytes in the host.
inline constexpr std::uint32_t kMostItemsAMessage = 256;

}  // namespace kestrune::boundary
