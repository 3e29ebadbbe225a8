// The initialisers that nobody may call.
#pragma once

namespace kestrune::macos {

/// Ends the process with a line that names the class and "init()", as the platform's runtime does.
/// `className` is qualified with its module.
[[noreturn]] void endAtUnimplementedInitializer(const char* className);

}  // namespace kestrune::macos
