// What the extension asks of the operating system, answered by the platform: the log, the pasteboard,
// uniform types, the main thread, managers.
#pragma once

namespace kestrune::macos {

/// Puts the platform behind the hooks of src/platform, once per process. Call it before an extension
/// is made. Any thread.
void installSurroundings();

}  // namespace kestrune::macos
