#include "companion/events/EventStreamParser.h"

namespace kestrune {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kData = "data";
/// The mark, the name, and what ends it.
constexpr std::size_t kDecidingBytes = kByteOrderMark.size() + kData.size() + 1;

}  // namespace

std::size_t EventStreamParser::take(std::string_view bytes) {
  std::size_t events = 0;
  for (const char c : bytes) {
    const bool isSecondHalf = c == '\n' && afterReturn_;  // of one line's end
    afterReturn_ = c == '\r';
    if (isSecondHalf) continue;
    if (c == '\n' || c == '\r') {
      events += endLine() ? 1 : 0;
      continue;
    }
    isEmpty_ = false;
    if (name_.size() < kDecidingBytes) name_ += c;
  }
  return events;
}

bool EventStreamParser::endLine() {
  std::string_view line = name_;
  if (atStart_ && line.starts_with(kByteOrderMark)) line.remove_prefix(kByteOrderMark.size());
  const bool isEnd = isEmpty_ && hasData_;
  if (isEmpty_) {
    hasData_ = false;
  } else if (line == kData || line.starts_with("data:")) {
    hasData_ = true;
  }
  name_.clear();
  isEmpty_ = true;
  atStart_ = false;
  return isEnd;
}

}  // namespace kestrune
