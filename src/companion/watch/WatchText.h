// What "kestrune status --watch" shows: a page on a terminal, else a line for each thing that changes.
//
// Threads: plain functions.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "companion/control/ControlText.h"
#include "companion/terminal/Screen.h"
#include "companion/watch/TransferRates.h"
#include "platform/values/Json.h"

namespace kestrune {

/// What is so at one moment.
struct WatchFacts {
  /// As the host tells it; null where no host answers.
  platform::Json status;
  platform::Json pending;
  std::vector<SyncTransfer> transfers;
};

/// At most `size.lines` lines, each of at most `size.columns` cells. `withColor`: headings in bold.
std::vector<std::string> watchPage(const WatchFacts& facts, const TransferRates& rates,
                                   ScreenSize size, bool withColor);

/// One line for each thing that is so, without counts that move all the time: what is new among them is what has changed.
std::vector<std::string> watchLines(const WatchFacts& facts, Escaping escaping);

/// For programs: {"status":{…},"pending":{…},"transfers":[{"path","direction","bytesTransferred","totalBytes","startedAt"}]}; "status"
/// and "pending" are null where no host answers.
platform::Json watchJson(const WatchFacts& facts);

}  // namespace kestrune
