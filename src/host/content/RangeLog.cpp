#include "host/content/RangeLog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <limits>
#include <optional>
#include <span>
#include <string_view>

#include "host/content/FileCopy.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

using platform::NSPOSIXError;

constexpr std::int64_t kEndOfAll = std::numeric_limits<std::int64_t>::max();

std::string readAll(int file) {
  std::string text;
  std::array<char, 1 << 16> buffer{};
  for (;;) {
    const ssize_t count =
        ::pread(file, buffer.data(), buffer.size(), static_cast<off_t>(text.size()));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw NSPOSIXError(errno, "read the log of a file's contents");
    if (count == 0) return text;
    text.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

void cut(std::int64_t size, ContentState& state) {
  state.present.remove({size, kEndOfAll});
  state.sizeBytes = std::min(state.sizeBytes, size);
  state.fetchableBytes = std::min(state.fetchableBytes, size);
}

// False if it is no line of a log. `cutting`: the length of a cut of which it is not known yet whether it was made.
bool apply(std::string_view line, ContentState& state, std::optional<std::int64_t>& cutting) {
  if (line.empty()) return false;
  cutting.reset();
  const std::string_view value = line.substr(1);
  if (line.front() == '+') {
    const auto ranges = Ranges::parse(value);
    if (!ranges) return false;
    for (const auto& range : ranges->all()) state.present.add(range);
    return true;
  }
  std::int64_t size = 0;
  const auto parsed = std::from_chars(value.data(), value.data() + value.size(), size);
  if (parsed.ec != std::errc() || size < 0) return false;
  if (line.front() == '~') {
    cutting = size;
    return true;
  }
  if (line.front() != '=') return false;
  cut(size, state);
  return true;
}

}  // namespace

void RangeLog::append(const std::string& line) {
  if (!file_) file_ = directory_->openLog(number_, true);
  struct stat status = {};
  if (::fstat(file_->number(), &status) != 0)
    throw NSPOSIXError(errno, "examine the log of a file's contents");
  try {
    writeBytes(file_->number(), status.st_size, std::as_bytes(std::span(line)));
  } catch (const NSPOSIXError&) {
    // Half a line would swallow the next one. If cutting it off fails too, reading the log ends there.
    if (::ftruncate(file_->number(), status.st_size) != 0) file_.reset();
    throw;
  }
  ++noted_;
}

void RangeLog::noteHere(ByteRange range) {
  Ranges ranges;
  ranges.add(range);
  append("+" + ranges.text() + "\n");
}

void RangeLog::noteCutting(std::int64_t sizeBytes) {
  append("~" + std::to_string(sizeBytes) + "\n");
}

void RangeLog::noteCut(std::int64_t sizeBytes) { append("=" + std::to_string(sizeBytes) + "\n"); }

void RangeLog::clear() {
  const auto file = directory_->openLog(number_, false);
  if (file && ::ftruncate(file->number(), 0) != 0)
    throw NSPOSIXError(errno, "empty the log of a file's contents");
}

void RangeLog::flush() {
  if (file_ && ::fdatasync(file_->number()) != 0)
    throw NSPOSIXError(errno, "bring the log of a file's contents to the disk");
}

void RangeLog::replay(ContentState& state, std::int64_t lengthOnDisk) {
  const auto file = directory_->openLog(number_, false);
  if (!file) return;
  const std::string text = readAll(file->number());
  std::string_view rest = text;
  std::size_t end = 0;
  std::optional<std::int64_t> cutting;
  while ((end = rest.find('\n')) != std::string_view::npos) {
    if (!apply(rest.substr(0, end), state, cutting)) break;
    rest.remove_prefix(end + 1);
  }
  if (cutting && lengthOnDisk <= *cutting) cut(*cutting, state);
  // Lines that are added after a torn one would not be read.
  if (!rest.empty() &&
      ::ftruncate(file->number(), static_cast<off_t>(text.size() - rest.size())) != 0)
    throw NSPOSIXError(errno, "mend the log of a file's contents");
}

}  // namespace kestrune::host
