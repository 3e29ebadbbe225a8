#include "companion/report/Archive.h"

#include <zlib.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace kestrune {

namespace {

constexpr std::size_t kBlock = 512;
/// Asks zlib for gzip's frame and the largest window.
constexpr int kGzipWindow = 15 + 16;
constexpr int kUsualMemory = 8;

using Header = std::array<char, kBlock>;

void put(Header& header, std::size_t at, std::string_view text) {
  std::memcpy(header.data() + at, text.data(), text.size());
}

void putOctal(Header& header, std::size_t at, int digits, std::uint64_t value) {
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "%0*llo", digits, static_cast<unsigned long long>(value));
  put(header, at, text.data());
}

// The fields of the format, at their places in it.
std::string headerOf(const ArchivedFile& file, platform::Date time) {
  constexpr std::size_t kLongestName = 100;
  if (file.name.size() > kLongestName)
    throw std::invalid_argument("a name is too long for the archive");
  Header header{};
  put(header, 0, file.name);
  putOctal(header, 100, 7, 0600);
  putOctal(header, 108, 7, 0);
  putOctal(header, 116, 7, 0);
  putOctal(header, 124, 11, file.contents.size());
  const auto seconds = std::chrono::floor<std::chrono::seconds>(time).time_since_epoch().count();
  putOctal(header, 136, 11, static_cast<std::uint64_t>(seconds));
  put(header, 148, "        ");  // counts as blanks in its own sum
  put(header, 156, "0");
  put(header, 257, std::string_view("ustar\00000", 8));
  std::uint64_t sum = 0;
  for (const char c : header) sum += static_cast<unsigned char>(c);
  putOctal(header, 148, 6, sum);
  header[154] = '\0';
  return {header.data(), header.size()};
}

std::string compressed(std::string bytes) {
  z_stream stream{};
  if (::deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, kGzipWindow, kUsualMemory,
                     Z_DEFAULT_STRATEGY) != Z_OK)
    throw std::bad_alloc();
  std::string result(::deflateBound(&stream, bytes.size()), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(bytes.data());
  stream.avail_in = static_cast<uInt>(bytes.size());
  stream.next_out = reinterpret_cast<Bytef*>(result.data());
  stream.avail_out = static_cast<uInt>(result.size());
  const int code = ::deflate(&stream, Z_FINISH);
  result.resize(stream.total_out);
  ::deflateEnd(&stream);
  if (code != Z_STREAM_END) throw std::runtime_error("the archive cannot be compressed");
  return result;
}

}  // namespace

std::string tarGz(const std::vector<ArchivedFile>& files, platform::Date time) {
  std::string tar;
  for (const ArchivedFile& file : files) {
    tar += headerOf(file, time) + file.contents;
    tar.resize((tar.size() + kBlock - 1) / kBlock * kBlock, '\0');
  }
  tar.append(2 * kBlock, '\0');
  return compressed(std::move(tar));
}

}  // namespace kestrune
