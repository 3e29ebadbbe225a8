// Where the files lie that the extension shares with its companion: all below "Kestrune" in the
// Application Support directory. Locations are computed anew at each call, because the environment
// decides them.
//
// Threads: callable from any thread. Fails: never; a directory that cannot be made shows when its
// file is used.
#pragma once

#include <filesystem>
#include <string_view>

namespace kestrune::storage {

inline constexpr std::string_view kDirectoryName = "Kestrune";
inline constexpr std::string_view kConfigurationFile = "config.json";
inline constexpr std::string_view kPinsFile = "pinned.json";

/// The shared directory, made if it is missing (with its parents, readable for the user alone).
std::filesystem::path sharedDirectory();

/// "listing-cache", where the last listing of each folder is kept; made if it is missing.
std::filesystem::path listingCacheDirectory();

/// "sync-status.json"; its directory is made if it is missing.
std::filesystem::path syncStatusFile();

/// "invalidation-token.txt", written whenever the remote store may have changed. Its directory is
/// not made.
std::filesystem::path invalidationTokenFile();

}  // namespace kestrune::storage
