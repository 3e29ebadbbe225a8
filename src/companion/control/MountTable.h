// Which mount a path lies in, by the kernel's own table: asking the mount itself might wait for its host.
//
// Threads: plain functions.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace kestrune {

/// The contents of /proc/self/mountinfo; empty if there is none.
std::string presentMountTable();

/// Where folders of ours are mounted, in the order of the table.
std::vector<std::filesystem::path> mountPointsOfOurs(const std::string& mountTable);

/// Where the folder of ours is mounted that holds `path`, by the table `mountTable`; nothing if it lies elsewhere, also where
/// something else is mounted in between. REQUIRES: `path` is absolute and normal.
std::optional<std::filesystem::path> mountPointAround(const std::string& mountTable,
                                                      const std::filesystem::path& path);

}  // namespace kestrune
