// `kestrune invalidate`: tells the extension that the remote store may have changed, by writing a
// new invalidation token. At the next question for changes every folder is listed again.
//
// Threads: one. Fails: CommandError; the earlier token then stays.
#pragma once

#include <string>

namespace kestrune {

/// Returns what to tell the user; with `asJson` {"token":"…","file":"…"}.
std::string writeInvalidationToken(bool asJson = false);

}  // namespace kestrune
