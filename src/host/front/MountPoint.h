// The place in the file system where a mount appears: whether it can be used, and what is left there of a mount whose
// host died.
//
// Threads: every operation may be called from any thread; they block for local calls only, and never enter a live mount.
// Fails: throws NSPOSIXError with a text for the user.
#pragma once

#include <filesystem>

namespace kestrune::host {

/// Absolute and without links but in its last part, which is not touched: it may be a mount without a host.
std::filesystem::path absolutePlace(const std::filesystem::path& directory);

/// Makes sure that `directory` is an empty folder on which nothing of ours is mounted. A mount of ours that has lost its
/// host (every access answers ENOTCONN) is taken away first.
void prepareMountPoint(const std::filesystem::path& directory);

/// Refuses a local folder and a mount point of which one lies in the other: the host must never use its own mount.
void requireApart(const std::filesystem::path& mountPoint, const std::filesystem::path& local);

/// Detaches what is mounted at `directory`, as root or with the user's mount helper.
void detachMount(const std::filesystem::path& directory);

/// Raises the kernel's read-ahead of the mount at `directory`, which needs privileges; without them it stays as it is.
void raiseReadAhead(const std::filesystem::path& directory, std::size_t bytes);

}  // namespace kestrune::host
