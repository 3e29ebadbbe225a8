// The transfers that "sync-status.json" tells of.
//
// Threads: callable from any thread. Fails: never; a file that is not there, or of no such form, tells of none.
#pragma once

#include <vector>

#include "status/SyncStatus.h"

namespace kestrune {

std::vector<SyncTransfer> presentTransfers();

}  // namespace kestrune
