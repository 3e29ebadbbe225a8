#include "service/Listing.h"

#include <dirent.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>

#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

constexpr std::size_t kRecordBytes = 64U << 10U;

/// The head of struct linux_dirent64 (getdents64, Linux): inode, offset, record length, kind, then
/// the name.
constexpr std::size_t kLengthOffset = 16;
constexpr std::size_t kKindOffset = 18;
constexpr std::size_t kNameOffset = 19;

bool isDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

void appendDigits(std::string& out, unsigned value, unsigned width) {
  char digits[10];
  for (unsigned i = width; i-- > 0; value /= 10) digits[i] = static_cast<char>('0' + value % 10);
  out.append(digits, width);
}

void appendEscaped(std::string& out, char c) {
  if (c == '"' || c == '\\') {
    out += '\\';
    out += c;
  } else {
    fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned char>(c));
  }
}

}  // namespace

void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  std::size_t plainFrom = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c != '"' && c != '\\' && static_cast<unsigned char>(c) >= 0x20) continue;
    out.append(text, plainFrom, i - plainFrom);
    appendEscaped(out, c);
    plainFrom = i + 1;
  }
  out.append(text, plainFrom);
  out += '"';
}

void appendTimestamp(std::string& out, FileTime time) {
  using namespace std::chrono;
  constexpr sys_seconds kFirst = sys_days(year(0) / January / 1);
  constexpr sys_seconds kLast = sys_days(year(10000) / January / 1) - seconds(1);
  const sys_seconds second = std::clamp(sys_seconds(seconds(time.seconds)), kFirst, kLast);
  const auto day = floor<days>(second);
  const year_month_day date(day);
  const hh_mm_ss clock(second - day);
  appendDigits(out, static_cast<unsigned>(static_cast<int>(date.year())), 4);
  out += '-';
  appendDigits(out, static_cast<unsigned>(date.month()), 2);
  out += '-';
  appendDigits(out, static_cast<unsigned>(date.day()), 2);
  out += 'T';
  appendDigits(out, static_cast<unsigned>(clock.hours().count()), 2);
  out += ':';
  appendDigits(out, static_cast<unsigned>(clock.minutes().count()), 2);
  out += ':';
  appendDigits(out, static_cast<unsigned>(clock.seconds().count()), 2);
  out += '.';
  appendDigits(out, time.nanoseconds / 1'000'000, 3);
  out += 'Z';
}

Listing::Listing(FileDescriptor folder, const RemotePath& path, MimeTypes& types)
    : folder_(std::move(folder)), types_(types), records_(kRecordBytes) {
  opening_ = "{\"path\":";
  appendJsonString(opening_, path.text());
  opening_ += ",\"entries\":[";
}

bool Listing::refill() {
  const long length = ::syscall(SYS_getdents64, folder_.get(), records_.data(), records_.size());
  // A folder that is deleted while it is read answers ENOENT; it has no entries any more.
  if (length < 0 && errno != ENOENT) throw fileError(errno, "getdents64");
  position_ = 0;
  filled_ = length > 0 ? static_cast<std::size_t>(length) : 0;
  return filled_ > 0;
}

bool Listing::next(std::string& out, std::size_t enough) {
  const std::size_t target = out.size() + enough;
  out += opening_;
  opening_.clear();
  while (out.size() < target) {
    if (position_ == filled_ && !refill()) {
      out += "]}";
      return false;
    }
    const char* record = records_.data() + position_;
    std::uint16_t length = 0;
    std::memcpy(&length, record + kLengthOffset, sizeof length);
    position_ += length;
    append(out, record + kNameOffset, static_cast<unsigned char>(record[kKindOffset]));
  }
  return true;
}

void Listing::append(std::string& out, const char* name, unsigned char kindHint) {
  if (isDotOrDotDot(name)) return;
  if (kindHint != DT_REG && kindHint != DT_DIR && kindHint != DT_UNKNOWN) return;
  if (!isAcceptableName(name)) {
    ++refusedNames_;
    return;
  }
  struct statx status {};
  constexpr unsigned kWanted = STATX_TYPE | STATX_SIZE | STATX_MTIME;
  if (::statx(folder_.get(), name, AT_SYMLINK_NOFOLLOW | AT_STATX_DONT_SYNC, kWanted, &status) !=
      0) {
    if (errno == ENOENT) return;
    throw fileError(errno, "statx");
  }
  const bool isFolder = S_ISDIR(status.stx_mode);
  if (!isFolder && !S_ISREG(status.stx_mode)) return;
  out += first_ ? "{\"name\":" : ",{\"name\":";
  first_ = false;
  appendJsonString(out, name);
  out += isFolder ? ",\"type\":\"directory\",\"size\":" : ",\"type\":\"file\",\"size\":";
  const fmt::format_int size(isFolder ? 0 : status.stx_size);
  out.append(size.data(), size.size());
  out += ",\"modified_at\":\"";
  appendTimestamp(out, {status.stx_mtime.tv_sec, status.stx_mtime.tv_nsec});
  out += '"';
  if (!isFolder) {
    const auto& type = types_.typeOf(name);
    if (type) {
      out += ",\"mime_type\":";
      appendJsonString(out, *type);
    }
  }
  out += '}';
}

}  // namespace kestrune::service
