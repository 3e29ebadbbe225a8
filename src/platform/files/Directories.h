// Where the user's files of the project live.
//
// Threads: callable from any thread; setTemporaryDirectory only before tasks run. Each call asks the
// system anew.
#pragma once

#include <filesystem>

namespace kestrune::platform {

/// The Application Support directory of the user domain. It is not created.
///
/// Linux: $XDG_DATA_HOME where that is an absolute path, else .local/share in the home directory
/// (XDG Base Directory 0.8): $HOME where that is an absolute path, else the account's.
///
/// macOS: Library/Application Support in the account's home directory; no variable of the
/// environment counts. Inside an app sandbox $HOME and the platform's own answer name the container
/// of that one program, but the app and its extension share the directory in the real home, to
/// which an entitlement gives them access.
///
/// Without any home directory the process ends with a line on standard error: nothing of the
/// project can work then.
std::filesystem::path applicationSupportDirectory();

/// The directory for files that are handed over and soon gone: the one set by the host, else
/// $TMPDIR where that is an absolute path, else the account's own on macOS and /tmp elsewhere.
std::filesystem::path temporaryDirectory();

/// Sets the temporary directory of this process, which should lie on the file system that takes the
/// files over.
void setTemporaryDirectory(std::filesystem::path directory);

}  // namespace kestrune::platform
