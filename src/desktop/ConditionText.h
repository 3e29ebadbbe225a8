// How a host is doing, in words for people: what is wrong, one sentence each, and all of it in short.
//
// Threads: plain functions. Texts are UTF-8 without zero bytes, whatever came from elsewhere.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "host/control/HostControl.h"

namespace kestrune::desktop {

/// At most `most`, what concerns everything first.
std::vector<std::string> problemsOf(const host::HostCondition& condition,
                                    const host::PendingChanges& pending, std::size_t most);

/// A few lines.
std::string conditionText(const host::HostCondition& condition,
                          const host::PendingChanges& pending);

}  // namespace kestrune::desktop
