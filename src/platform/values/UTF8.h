// Whether bytes are text. Callable from any thread.
#pragma once

#include <string_view>

namespace kestrune::platform {

/// True if `bytes` is well-formed UTF-8 (no surrogates, no overlong forms, nothing beyond
/// U+10FFFF).
bool isValidUTF8(std::string_view bytes);

}  // namespace kestrune::platform
