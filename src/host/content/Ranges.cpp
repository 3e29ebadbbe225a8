#include "host/content/Ranges.h"

#include <algorithm>
#include <charconv>

namespace kestrune::host {

namespace {

/// Takes a number off the beginning of `text`; none if there is none, or a sign.
std::optional<std::int64_t> takeNumber(std::string_view& text) {
  if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
  std::int64_t number = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
  if (parsed.ec != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(parsed.ptr - text.data()));
  return number;
}

bool take(std::string_view& text, char expected) {
  if (text.empty() || text.front() != expected) return false;
  text.remove_prefix(1);
  return true;
}

}  // namespace

void Ranges::add(ByteRange range) {
  if (range.isEmpty()) return;
  // From the first range that touches the new one on, all that do become one with it.
  auto at = ends_.upper_bound(range.start);
  if (at != ends_.begin() && std::prev(at)->second >= range.start) --at;
  while (at != ends_.end() && at->first <= range.end) {
    range.start = std::min(range.start, at->first);
    range.end = std::max(range.end, at->second);
    at = ends_.erase(at);
  }
  ends_.emplace(range.start, range.end);
}

void Ranges::remove(ByteRange range) {
  if (range.isEmpty()) return;
  auto at = ends_.upper_bound(range.start);
  if (at != ends_.begin() && std::prev(at)->second > range.start) --at;
  while (at != ends_.end() && at->first < range.end) {
    const ByteRange cut{at->first, at->second};
    at = ends_.erase(at);
    if (cut.start < range.start) ends_.emplace(cut.start, range.start);
    if (cut.end > range.end) ends_.emplace(range.end, cut.end);
  }
}

ByteRange Ranges::firstMissing(ByteRange within) const {
  if (within.isEmpty()) return {};
  std::int64_t start = within.start;
  auto next = ends_.upper_bound(start);
  if (next != ends_.begin()) start = std::max(start, std::prev(next)->second);
  if (start >= within.end) return {};
  const std::int64_t end = next == ends_.end() ? within.end : std::min(within.end, next->first);
  return {start, end};
}

std::vector<ByteRange> Ranges::missing(ByteRange within) const {
  std::vector<ByteRange> stretches;
  for (ByteRange next = firstMissing(within); !next.isEmpty();
       next = firstMissing({next.end, within.end})) {
    stretches.push_back(next);
  }
  return stretches;
}

ByteRange Ranges::around(std::int64_t offset) const {
  const auto next = ends_.upper_bound(offset);
  if (next == ends_.begin()) return {};
  const auto& [start, end] = *std::prev(next);
  return offset < end ? ByteRange{start, end} : ByteRange{};
}

std::int64_t Ranges::byteCount() const {
  std::int64_t count = 0;
  for (const auto& [start, end] : ends_) count += end - start;
  return count;
}

std::vector<ByteRange> Ranges::all() const {
  std::vector<ByteRange> ranges;
  ranges.reserve(ends_.size());
  for (const auto& [start, end] : ends_) ranges.push_back({start, end});
  return ranges;
}

std::string Ranges::text() const {
  std::string text;
  for (const auto& [start, end] : ends_) {
    if (!text.empty()) text += ',';
    text += std::to_string(start) + '-' + std::to_string(end);
  }
  return text;
}

std::optional<Ranges> Ranges::parse(std::string_view text) {
  Ranges ranges;
  std::optional<std::int64_t> lastEnd;
  while (!text.empty()) {
    if (lastEnd && !take(text, ',')) return std::nullopt;
    const auto start = takeNumber(text);
    if (!start || !take(text, '-')) return std::nullopt;
    const auto end = takeNumber(text);
    if (!end || *end <= *start) return std::nullopt;
    if (lastEnd && *start <= *lastEnd) return std::nullopt;  // what touches would be one
    ranges.ends_.emplace(*start, *end);
    lastEnd = end;
  }
  return ranges;
}

}  // namespace kestrune::host
