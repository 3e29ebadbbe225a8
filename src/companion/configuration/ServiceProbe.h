// One look at a service with an address and a token: lists the root as the extension would, and says precisely what stands in the
// way, and what to do about it. For who configures, and for "kestrune doctor".
//
// It is a connection of its own, that leaves nothing running behind: no redirect is followed, no failure is tried again.
//
// Threads: callable from any thread; blocks for `patience` at most.
#pragma once

#include <chrono>
#include <optional>
#include <string>

#include "platform/values/Date.h"
#include "platform/values/Secret.h"

namespace kestrune {

struct ServiceProbe {
  enum class Outcome {
    listed,
    cannotResolve,
    refused,
    timedOut,
    /// The certificate is not to be trusted, or there is no TLS at all.
    notSecure,
    unauthorized,
    notFound,
    redirected,
    /// Any other status.
    status,
    /// An answer that is no listing.
    noListing,
    other,
  };
  Outcome outcome = Outcome::listed;
  /// What is wrong, with the address, and what to do; empty if it was listed. Never holds the token.
  std::string problem;
  /// What the service's clock said, exact to a second.
  std::optional<platform::Date> serverTime;
  /// When the server's certificate ends.
  std::optional<platform::Date> certificateUntil;
};

/// `address` as checkedServiceAddress gives it.
ServiceProbe probeService(const std::string& address, const platform::Secret& token,
                          std::chrono::milliseconds patience = std::chrono::seconds(20));

}  // namespace kestrune
