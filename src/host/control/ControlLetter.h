// The host's replies on their way to the thread that writes them to clients.
//
// Threads: values; the mailbox as it says.
#pragma once

#include <cstdint>

#include "host/basics/Answer.h"
#include "host/basics/Mailbox.h"
#include "platform/values/Json.h"

namespace kestrune::host {

using ControlClientId = std::uint64_t;

/// The result of a request, or what a waiting "sync" has seen. JSON is made where the reply comes, not on the one
/// thread of all clients.
struct ControlLetter {
  ControlClientId client = 0;
  Answer<platform::Json> answer;
  /// Of what is pending: how much is left.
  std::uint64_t left = 0;
};

using ControlMailbox = Mailbox<ControlLetter>;

}  // namespace kestrune::host
