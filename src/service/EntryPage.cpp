#include "service/EntryPage.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <limits>
#include <system_error>
#include <utility>

#include "service/RemotePath.h"
#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

bool isDotOrDotDot(const char* name) {
  return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

char folded(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

/// Takes the digits at the beginning of `text`, without leading zeros.
std::string_view takeNumber(std::string_view& text) {
  std::size_t end = 0;
  while (end < text.size() && isDigit(text[end])) ++end;
  std::string_view number = text.substr(0, end);
  text.remove_prefix(end);
  number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
  return number;
}

/// Negative, zero or positive, as people order names; zero also for names that differ only in case
/// or leading zeros.
int comparePeoples(std::string_view a, std::string_view b) {
  while (!a.empty() && !b.empty()) {
    if (isDigit(a.front()) && isDigit(b.front())) {
      const std::string_view first = takeNumber(a);
      const std::string_view second = takeNumber(b);
      if (first.size() != second.size()) return first.size() < second.size() ? -1 : 1;
      if (const int order = first.compare(second); order != 0) return order;
      continue;
    }
    const auto first = static_cast<unsigned char>(folded(a.front()));
    const auto second = static_cast<unsigned char>(folded(b.front()));
    if (first != second) return first < second ? -1 : 1;
    a.remove_prefix(1);
    b.remove_prefix(1);
  }
  if (a.empty() && b.empty()) return 0;
  return a.empty() ? -1 : 1;
}

std::int64_t millisecondsOf(FileTime time) {
  // Far beyond any calendar, and a thousand times that still fits.
  constexpr std::int64_t kBound = std::numeric_limits<std::int64_t>::max() / 2000;
  return std::clamp(time.seconds, -kBound, kBound) * 1000 + time.nanoseconds / 1'000'000;
}

}  // namespace

EntryPlace EntryPlace::of(const FolderEntry& entry, SortBy by) {
  EntryPlace place{entry.isFolder, 0, entry.name};
  if (by == SortBy::time) place.value = millisecondsOf(entry.modified);
  if (by == SortBy::size && !entry.isFolder) {
    constexpr std::uint64_t kMax = std::numeric_limits<std::int64_t>::max();
    place.value = static_cast<std::int64_t>(std::min(entry.sizeBytes, kMax));
  }
  return place;
}

std::string EntryPlace::text() const {
  return fmt::format("{}.{}.{}", isFolder ? 'd' : 'f', value, name);
}

std::optional<EntryPlace> EntryPlace::parse(std::string_view text) {
  EntryPlace place;
  place.isFolder = text.starts_with("d.");
  if (!place.isFolder && !text.starts_with("f.")) return std::nullopt;
  text.remove_prefix(2);
  const std::size_t dot = text.find('.');
  if (dot == std::string_view::npos) return std::nullopt;
  const char* end = text.data() + dot;
  const auto [parsed, error] = std::from_chars(text.data(), end, place.value);
  if (error != std::errc() || parsed != end) return std::nullopt;
  place.name = text.substr(dot + 1);
  return place;
}

bool comesBefore(const EntryPlace& a, const EntryPlace& b, Sorting sorting) {
  if (a.isFolder != b.isFolder) return a.isFolder;
  const bool descending = sorting.isDescending;
  if (a.value != b.value) return (a.value < b.value) != descending;
  int order = comparePeoples(a.name, b.name);
  if (order == 0) order = a.name.compare(b.name);
  return descending ? order > 0 : order < 0;
}

EntryPage::EntryPage(FileDescriptor folder, Sorting sorting, EntryWindow window, std::size_t length)
    : folder_(std::move(folder)),
      sorting_(sorting),
      window_(std::move(window)),
      length_(std::max<std::size_t>(length, 1)) {
  FileDescriptor again(::fcntl(folder_.get(), F_DUPFD_CLOEXEC, 0));
  if (!again) throw fileError(errno, "dup of a folder");
  reader_.reset(::fdopendir(again.get()));
  if (!reader_) throw fileError(errno, "fdopendir");
  again.release();
  kept_.reserve(length_ + 1);
}

bool EntryPage::fromTheEnd() const {
  return window_.from == EntryWindow::From::before || window_.from == EntryWindow::From::last;
}

/// Whether `b` is wanted less than `a`.
bool EntryPage::isFurther(const Candidate& a, const Candidate& b) const {
  return fromTheEnd() ? comesBefore(b.place, a.place, sorting_)
                      : comesBefore(a.place, b.place, sorting_);
}

/// Fills in size, time and kind. False if it has gone, or is neither a file nor a folder.
bool EntryPage::describe(FolderEntry& entry) const {
  struct statx status {};
  constexpr unsigned kWanted = STATX_TYPE | STATX_SIZE | STATX_MTIME;
  if (::statx(folder_.get(), entry.name.c_str(), AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC, kWanted,
              &status) != 0) {
    if (errno == ENOENT) return false;
    throw fileError(errno, "statx");
  }
  entry.isFolder = S_ISDIR(status.stx_mode);
  entry.sizeBytes = entry.isFolder ? 0 : status.stx_size;
  entry.modified = {status.stx_mtime.tv_sec, status.stx_mtime.tv_nsec};
  return entry.isFolder || S_ISREG(status.stx_mode);
}

std::optional<FolderEntry> EntryPage::entryOf(const char* name, unsigned char kindHint) {
  if (isDotOrDotDot(name)) return std::nullopt;
  if (kindHint != DT_REG && kindHint != DT_DIR && kindHint != DT_UNKNOWN) return std::nullopt;
  if (!isAcceptableName(name)) {
    ++refusedNames_;
    return std::nullopt;
  }
  FolderEntry entry;
  entry.isFolder = kindHint == DT_DIR;
  entry.name = name;
  // In the order of names only what is shown needs to be asked for.
  const bool needed = sorting_.by != SortBy::name || kindHint == DT_UNKNOWN;
  if (needed && !describe(entry)) return std::nullopt;
  return entry;
}

bool EntryPage::readSome(std::size_t count) {
  for (; count > 0; --count) {
    errno = 0;
    const dirent* record = ::readdir(reader_.get());
    if (record == nullptr) {
      // A folder that is deleted while it is read answers ENOENT; it has no entries any more.
      if (errno != 0 && errno != ENOENT) throw fileError(errno, "readdir");
      return false;
    }
    auto entry = entryOf(record->d_name, record->d_type);
    if (entry) take(std::move(*entry));
  }
  return true;
}

void EntryPage::take(FolderEntry entry) {
  ++total_;
  Candidate candidate{std::move(entry), {}};
  candidate.place = EntryPlace::of(candidate.entry, sorting_.by);
  const auto further = [this](const Candidate& a, const Candidate& b) { return isFurther(a, b); };
  if (window_.from == EntryWindow::From::after &&
      !comesBefore(window_.place, candidate.place, sorting_)) {
    ++beforePlace_;
    return;
  }
  if (window_.from == EntryWindow::From::before) {
    if (!comesBefore(candidate.place, window_.place, sorting_)) return;
    ++beforePlace_;
  }
  if (kept_.size() == length_) {
    if (!isFurther(candidate, kept_.front())) return;
    std::pop_heap(kept_.begin(), kept_.end(), further);
    kept_.pop_back();
  }
  kept_.push_back(std::move(candidate));
  std::push_heap(kept_.begin(), kept_.end(), further);
}

EntryPage::Result EntryPage::finish() {
  Result result;
  result.total = total_;
  result.refusedNames = refusedNames_;
  switch (window_.from) {
    case EntryWindow::From::first:
      break;
    case EntryWindow::From::after:
      result.before = beforePlace_;
      break;
    case EntryWindow::From::before:
      result.before = beforePlace_ - kept_.size();
      break;
    case EntryWindow::From::last:
      result.before = total_ - kept_.size();
      break;
  }
  std::sort(kept_.begin(), kept_.end(), [this](const Candidate& a, const Candidate& b) {
    return comesBefore(a.place, b.place, sorting_);
  });
  for (Candidate& candidate : kept_) {
    if (sorting_.by == SortBy::name && !describe(candidate.entry)) continue;
    result.entries.push_back(std::move(candidate.entry));
  }
  return result;
}

}  // namespace kestrune::service
