#include "companion/terminal/TerminalText.h"

#include <algorithm>
#include <array>
#include <cstdio>

#include "platform/log/Log.h"

namespace kestrune {

namespace {

struct Range {
  char32_t first;
  char32_t last;
};
/// Two cells: East Asian wide characters and emoji (Unicode TR 11), coarsely.
constexpr std::array<Range, 10> kWide = {{{0x1100, 0x115F},
                                          {0x2E80, 0xA4CF},
                                          {0xAC00, 0xD7A3},
                                          {0xF900, 0xFAFF},
                                          {0xFE30, 0xFE6F},
                                          {0xFF00, 0xFF60},
                                          {0xFFE0, 0xFFE6},
                                          {0x1F300, 0x1FAFF},
                                          {0x20000, 0x3FFFD},
                                          {0x1F000, 0x1F2FF}}};
/// No cell: marks that combine with what stands before, and joiners.
constexpr std::array<Range, 4> kNone = {
    {{0x0300, 0x036F}, {0x200B, 0x200D}, {0x20D0, 0x20FF}, {0xFE00, 0xFE0F}}};

template <class Ranges>
bool isIn(const Ranges& ranges, char32_t c) {
  return std::any_of(ranges.begin(), ranges.end(),
                     [c](const Range& range) { return c >= range.first && c <= range.last; });
}

/// A character of valid UTF-8.
struct Character {
  std::size_t bytes;
  std::size_t cells;
};

Character characterAt(std::string_view text, std::size_t at) {
  const auto lead = static_cast<unsigned char>(text[at]);
  std::size_t bytes = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  bytes = std::min(bytes, text.size() - at);
  char32_t value = bytes == 1 ? lead : lead & (0xFFU >> (bytes + 1));
  for (std::size_t i = 1; i < bytes; ++i)
    value = (value << 6U) | (static_cast<unsigned char>(text[at + i]) & 0x3FU);
  return {bytes, isIn(kNone, value) ? 0U : isIn(kWide, value) ? 2U : 1U};
}

std::string filled(std::string text, std::size_t cells) {
  text.append(cells - std::min(cells, cellsOf(text)), ' ');
  return text;
}

}  // namespace

std::size_t cellsOf(std::string_view text) {
  std::size_t cells = 0;
  for (std::size_t at = 0; at < text.size();) {
    const Character character = characterAt(text, at);
    cells += character.cells;
    at += character.bytes;
  }
  return cells;
}

std::string fitted(std::string_view text, std::size_t cells) {
  std::string shown = platform::escapeForDisplay(text);
  if (cellsOf(shown) <= cells || cells == 0) return cells == 0 ? "" : filled(shown, cells);
  std::size_t taken = 0;
  std::size_t at = 0;
  for (;;) {
    const Character character = characterAt(shown, at);
    if (taken + character.cells > cells - 1) break;
    taken += character.cells;
    at += character.bytes;
  }
  shown.resize(at);
  return filled(shown + "~", cells);
}

std::string fittedEnd(std::string_view text, std::size_t cells) {
  const std::string shown = platform::escapeForDisplay(text);
  std::size_t left = cellsOf(shown);
  if (left <= cells || cells == 0) return cells == 0 ? "" : filled(shown, cells);
  std::size_t at = 0;
  while (left > cells - 1) {
    const Character character = characterAt(shown, at);
    left -= character.cells;
    at += character.bytes;
  }
  return filled("~" + shown.substr(at), cells);
}

std::string barText(std::uint64_t done, std::uint64_t total, std::size_t cells) {
  if (cells < 3) return std::string(cells, ' ');
  const std::size_t room = cells - 2;
  const double part =
      total == 0 ? 0 : static_cast<double>(std::min(done, total)) / static_cast<double>(total);
  const auto full = static_cast<std::size_t>(part * static_cast<double>(room));
  return "[" + std::string(full, '#') + std::string(room - full, '.') + "]";
}

std::string durationText(std::uint64_t seconds) {
  constexpr std::uint64_t kMinute = 60;
  constexpr std::uint64_t kHour = 60 * kMinute;
  if (seconds >= 100 * kHour) return "long";
  std::array<char, 32> text{};
  const auto number = [](std::uint64_t value) { return static_cast<unsigned>(value); };
  if (seconds >= kHour) {
    std::snprintf(text.data(), text.size(), "%u:%02u:%02u", number(seconds / kHour),
                  number(seconds % kHour / kMinute), number(seconds % kMinute));
  } else {
    std::snprintf(text.data(), text.size(), "%u:%02u", number(seconds / kMinute),
                  number(seconds % kMinute));
  }
  return text.data();
}

}  // namespace kestrune
