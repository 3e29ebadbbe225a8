// Writing large JSON texts piece by piece, without building a tree first. Callable from any thread.
#pragma once

#include <string>
#include <string_view>

namespace kestrune::platform {

/// Appends `text` to `out` as a JSON text in quotes, with "/" written as "\/". REQUIRES: `text` is
/// valid UTF-8.
void appendJsonText(std::string& out, std::string_view text);

}  // namespace kestrune::platform
