// The schema's types, and Cap'n Proto's headers as C++20 takes them.
#pragma once

#include <kj/string.h>

// Cap'n Proto 0.9 leaves these out for compilers with three-way comparison, and its own next header uses them.
namespace kj {
inline bool operator==(const char* a, const StringPtr& b) { return b.operator==(a); }
inline bool operator!=(const char* a, const StringPtr& b) { return !b.operator==(a); }
}  // namespace kj

#include <capnp/message.h>
#include <capnp/rpc-twoparty.h>
#include <capnp/serialize-async.h>
#include <capnp/serialize.h>
#include <kj/debug.h>

#include "boundary/Boundary.capnp.h"

namespace kestrune::boundary {

/// What most messages need; a longer one gets more. Unasked, Cap'n Proto takes 8 KiB of zeros, which cost more than the message.
inline constexpr unsigned kUsualWords = 64;
inline constexpr capnp::MessageSize kUsualSize{kUsualWords, 1};

}  // namespace kestrune::boundary
