// The bytes that a partial fetch asks for, by arithmetic alone.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>
#include <random>

#include "transfer/PartialFetch.h"

namespace kestrune {

void PrintTo(const FetchedRange& range, std::ostream* out) {
  *out << "[" << range.start << ", " << range.end << ")";
}

namespace {

using platform::NSRange;

constexpr std::int64_t kMiB = 1 << 20;
constexpr std::int64_t kMost = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kLeast = std::numeric_limits<std::int64_t>::min();

struct Sizing {
  NSRange requested;
  std::int64_t alignment;
  std::int64_t readAhead;
  std::int64_t fileSize;
};

FetchedRange sized(const Sizing& given) {
  return sizedRange(given.requested, given.alignment, given.readAhead, given.fileSize);
}

void PrintTo(const Sizing& given, std::ostream* out) {
  *out << given.requested.location << "+" << given.requested.length << " aligned to "
       << given.alignment << ", " << given.readAhead << " ahead, in " << given.fileSize;
}

TEST(SizedRangeTest, IsAlignedEnlargedAndCutAtTheFilesEnd) {
  const struct {
    Sizing given;
    FetchedRange expected;
  } cases[] = {
      // The whole of a file that the read-ahead covers.
      {{{100, 100}, 0, 32 * kMiB, 10'000'000}, {0, 10'000'000}},
      {{{0, 0}, 0, 16 * kMiB, 1}, {0, 1}},
      // Up to the next multiple of the alignment, and not past one.
      {{{0, 1}, 0, 16 * kMiB, 1 << 30}, {0, 16 * kMiB + 4096}},
      {{{0, 4096}, 0, 16 * kMiB, 1 << 30}, {0, 16 * kMiB + 4096}},
      {{{0, 4097}, 0, 16 * kMiB, 1 << 30}, {0, 16 * kMiB + 8192}},
      {{{4095, 1}, 0, 0, 1 << 30}, {0, 4096}},
      {{{4096, 1}, 0, 0, 1 << 30}, {4096, 8192}},
      // Never beyond the file.
      {{{8192, 1}, 0, 16 * kMiB, 9000}, {8192, 9000}},
      {{{8192, 1}, 0, 16 * kMiB, 8193}, {8192, 8193}},
      {{{9'999'999, 1}, 65'536, 16 * kMiB, 10'000'000}, {9'961'472, 10'000'000}},
      // Any alignment of at least 4096, powers of two or not.
      {{{12'000, 1}, -7, 0, 1 << 30}, {8192, 12'288}},
      {{{12'000, 1}, 1, 0, 1 << 30}, {8192, 12'288}},
      {{{12'000, 1}, 4095, 0, 1 << 30}, {8192, 12'288}},
      {{{12'000, 1}, 4097, 0, 1 << 30}, {8194, 12'291}},
      {{{12'000, 1}, 5000, 0, 1 << 30}, {10'000, 15'000}},
      {{{12'000, 1}, 65'536, 0, 1 << 30}, {0, 65'536}},
      {{{12'000, 1}, 1 << 30, 0, 20'000}, {0, 20'000}},
      // Nothing was asked for: at least one block, if there is one.
      {{{0, 0}, 0, 0, 1 << 30}, {0, 4096}},
      {{{5000, 0}, 0, 0, 1 << 30}, {4096, 8192}},
      {{{4096, 0}, 0, 0, 1 << 30}, {4096, 8192}},
      {{{4096, 0}, 0, 0, 5000}, {4096, 5000}},
      {{{5000, -3000}, 0, 0, 1 << 30}, {4096, 8192}},
      // A start below the file.
      {{{-300, 100}, 0, 16 * kMiB, 5000}, {0, 5000}},
      {{{-100 * kMiB, 1}, 0, 16 * kMiB, 5000}, {0, 4096}},
      {{{kLeast, 0}, 0, 0, 5000}, {0, 4096}},
      // A start beyond the file, by little and by much.
      {{{6000, 10}, 0, 16 * kMiB, 5000}, {4096, 5000}},
      {{{8192, 10}, 0, 16 * kMiB, 8192}, {8192, 8192}},
      {{{20'000, 10}, 0, 16 * kMiB, 5000}, {16'384, 5000}},
      {{{200'000, 10}, 65'536, 16 * kMiB, 5000}, {196'608, 5000}},
      // Empty files, and what a service may call a size.
      {{{0, 0}, 0, 16 * kMiB, 0}, {0, 0}},
      {{{0, 500}, 0, 16 * kMiB, 0}, {0, 0}},
      {{{5000, 500}, 0, 16 * kMiB, 0}, {4096, 0}},
      {{{0, 10}, 0, 16 * kMiB, -5000}, {0, -5000}},
      {{{0, 10}, 0, 16 * kMiB, kLeast}, {0, kLeast}},
      // As far as 64 bits go.
      {{{kMost - 100'000, 0}, 0, 100'000, kMost - 4096}, {kMost - 102'399, kMost - 4096}},
      {{{kMost - 4096, 0}, 0, 4096, 0}, {kMost - 8191, 0}},
  };
  for (const auto& [given, expected] : cases)
    EXPECT_EQ(sized(given), expected) << testing::PrintToString(given);
}

/// The same by other means, with room to spare; none where a sum on the way does not fit 64 bits.
std::optional<FetchedRange> modelled(const Sizing& given) {
  using Wide = __int128;
  bool fits = true;
  const auto checked = [&fits](Wide sum) {
    fits = fits && sum >= kLeast && sum <= kMost;
    return sum;
  };
  const Wide step = given.alignment < 4096 ? 4096 : given.alignment;
  const Wide requestedEnd = checked(Wide(given.requested.location) + given.requested.length);
  const Wide wantedEnd = checked(requestedEnd + given.readAhead);
  const Wide first = given.requested.location < 0 ? 0 : given.requested.location;
  const Wide start = first - first % step;
  Wide end = wantedEnd < given.fileSize ? wantedEnd : given.fileSize;
  checked(end + step);
  if (end > 0 && end % step != 0) end += step - end % step;
  if (end > given.fileSize) end = given.fileSize;
  if (end <= start) {
    end = checked(start + step);
    if (end > given.fileSize) end = given.fileSize;
  }
  if (!fits) return std::nullopt;
  return FetchedRange{static_cast<std::int64_t>(start), static_cast<std::int64_t>(end)};
}

/// Numbers of all magnitudes, often just beside a power of two or a multiple of a block.
class Numbers {
 public:
  explicit Numbers(std::uint64_t seed) : random_(seed) {}
  std::int64_t any() { return random_() % 8 == 0 ? -magnitude() : magnitude(); }
  std::int64_t size() { return random_() % 16 == 0 ? any() : magnitude(); }

 private:
  std::int64_t magnitude() {
    const auto bits = static_cast<int>(random_() % 63);
    const auto near = static_cast<std::int64_t>(random_() % 3) - 1;
    const auto wide = static_cast<std::int64_t>(random_() >> 1U);
    switch (random_() % 3) {
      case 0:
        return std::max<std::int64_t>(0, (std::int64_t{1} << bits) + near);
      case 1:
        return std::max<std::int64_t>(0, (wide >> (63 - bits)) / 4096 * 4096 + near);
      default:
        return wide >> (63 - bits);
    }
  }
  std::mt19937_64 random_;
};

TEST(SizedRangeTest, AgreesWithAModelOf128Bits) {
  const std::uint64_t seed = std::random_device()();
  RecordProperty("seed", static_cast<int>(seed));
  Numbers numbers(seed);
  int compared = 0;
  for (int i = 0; i < 200'000; ++i) {
    const Sizing given{
        {numbers.any(), numbers.any()}, numbers.any(), numbers.any(), numbers.size()};
    const auto expected = modelled(given);
    if (!expected) continue;
    ++compared;
    ASSERT_EQ(sized(given), *expected) << testing::PrintToString(given) << ", seed " << seed;
  }
  EXPECT_GT(compared, 100'000) << "seed " << seed;
}

TEST(SizedRangeDeathTest, AnOffsetThatDoesNotFit64BitsEndsTheProcess) {
  const Sizing cases[] = {
      // the requested end
      {{kMost, 1}, 0, 0, 5000},
      {{1, kMost}, 0, 0, 5000},
      {{kLeast, -1}, 0, 0, 5000},
      // the wanted end
      {{kMost - 10, 5}, 0, 6, 5000},
      {{-1, 0}, 0, kLeast, 5000},
      // the end, aligned up
      {{kMost - 100'000, 0}, 0, 100'000, kMost - 4095},
      {{0, 1}, kMost, 0, 5000},
      // the end of the first block
      {{kMost - 4095, 0}, 0, 0, 0},
      {{kMost, 0}, 0, 0, 0},
  };
  for (const Sizing& given : cases) {
    EXPECT_EQ(modelled(given), std::nullopt) << testing::PrintToString(given);
    EXPECT_DEATH(sized(given),
                 testing::StrEq("kestrune: fatal: the end of a byte range does not fit 64 bits\n"))
        << testing::PrintToString(given);
  }
}

}  // namespace
}  // namespace kestrune
