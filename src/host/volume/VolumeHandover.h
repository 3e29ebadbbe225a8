// What the volume knows of the kernel's nodes and of open files, written down for the host that takes its place, and made again from
// that: the same nodes stand for the same items, and who has a file open goes on with the same bytes, also where its name or its version is
// gone.
//
// Threads: as said at each.
#pragma once

#include <vector>

#include "host/front/Handover.h"
#include "host/volume/FileSystem.h"

namespace kestrune::host {

/// Brings what open files know of themselves into the tree, whose rows are committed then. Any thread.
void settleOpenFiles(FileSystem& fileSystem, const std::vector<OpenFilePtr>& files);

/// Adds nodes, objects, and what the volume knows of `files`, whose records are there already in the same order. REQUIRES: called with
/// the volume's lock held; nothing is uncommitted.
void handOverVolume(const std::vector<OpenFilePtr>& files, Tree& tree, Nodes& nodes,
                    Handover& handover);

/// What must not be cleared away when the volume is loaded. Before it is made.
void keepWhatIsOpen(const Handover& handover, Volume::Services& services);

/// The other end: makes nodes and open files, in the order of their records. Before the volume is started. Throws NSPOSIXError.
std::vector<OpenFilePtr> takeOverVolume(FileSystem& fileSystem, const Handover& handover);

}  // namespace kestrune::host
