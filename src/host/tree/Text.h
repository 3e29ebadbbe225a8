// Bytes of a name or a version that lie in an item's memory: seen without a copy, copied where somebody keeps them.
//
// Threads: values; the bytes are the item's, until it changes.
#pragma once

#include <string>
#include <string_view>

namespace kestrune::host {

class Text : public std::string_view {
 public:
  constexpr Text() = default;
  constexpr explicit Text(std::string_view bytes) : std::string_view(bytes) {}
  // NOLINTNEXTLINE(google-explicit-constructor): whoever keeps it means a copy
  operator std::string() const { return std::string(data(), size()); }
};

}  // namespace kestrune::host
