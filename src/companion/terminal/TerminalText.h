// Text that fits a terminal: escaped, cut to a number of cells.
//
// Threads: plain functions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kestrune {

/// The cells that `text` takes; it holds no control characters.
std::size_t cellsOf(std::string_view text);

/// `text` escaped for display, in exactly `cells` cells: filled with blanks, or cut with a "~" in the place of what is missing.
std::string fitted(std::string_view text, std::size_t cells);
/// The same, cut at the beginning: of a path, the file's name counts.
std::string fittedEnd(std::string_view text, std::size_t cells);

/// "[####....]" in `cells` cells. `total` 0: not known, no bar is filled.
std::string barText(std::uint64_t done, std::uint64_t total, std::size_t cells);
/// "0:07", "12:03", "1:02:03"; of more than 99 hours "long".
std::string durationText(std::uint64_t seconds);

}  // namespace kestrune
