#include "service/ByteRange.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrune::service {
namespace {

using Answer = ByteRange::Answer;

struct Case {
  const char* header;
  std::uint64_t size;
  Answer answer;
  std::uint64_t offset;
  std::uint64_t length;
};

TEST(ByteRange, FollowsTheRulesOfHTTP) {
  const Case cases[] = {
      {"bytes=0-0", 10, Answer::partial, 0, 1},
      {"bytes=2-5", 10, Answer::partial, 2, 4},
      {"bytes=2-", 10, Answer::partial, 2, 8},
      {"bytes=-3", 10, Answer::partial, 7, 3},
      {"bytes=-30", 10, Answer::partial, 0, 10},
      {"bytes=5-99", 10, Answer::partial, 5, 5},
      {"bytes=9-9", 10, Answer::partial, 9, 1},
      {"bytes=0-99999999999999999999999999", 10, Answer::partial, 0, 10},
      {" Bytes=1-2 ", 10, Answer::partial, 1, 2},
      {"bytes= 1-2", 10, Answer::partial, 1, 2},
      // Nothing of it is in the file.
      {"bytes=10-", 10, Answer::unsatisfiable, 0, 0},
      {"bytes=10-20", 10, Answer::unsatisfiable, 0, 0},
      {"bytes=-0", 10, Answer::unsatisfiable, 0, 0},
      {"bytes=0-", 0, Answer::unsatisfiable, 0, 0},
      {"bytes=-5", 0, Answer::unsatisfiable, 0, 0},
      {"bytes=99999999999999999999999999-", 10, Answer::unsatisfiable, 0, 0},
      // Malformed, several, or of another unit: as if there were none.
      {"", 10, Answer::whole, 0, 10},
      {"bytes", 10, Answer::whole, 0, 10},
      {"bytes=", 10, Answer::whole, 0, 10},
      {"bytes=-", 10, Answer::whole, 0, 10},
      {"bytes=5", 10, Answer::whole, 0, 10},
      {"bytes=5-4", 10, Answer::whole, 0, 10},
      {"bytes=a-b", 10, Answer::whole, 0, 10},
      {"bytes=1-b", 10, Answer::whole, 0, 10},
      {"bytes=+1-2", 10, Answer::whole, 0, 10},
      {"bytes=1--2", 10, Answer::whole, 0, 10},
      {"bytes=0-1,3-4", 10, Answer::whole, 0, 10},
      {"items=0-1", 10, Answer::whole, 0, 10},
  };
  for (const Case& each : cases) {
    const ByteRange range = parseByteRange(each.header, each.size);
    EXPECT_EQ(range.answer, each.answer) << each.header;
    EXPECT_EQ(range.offset, each.offset) << each.header;
    EXPECT_EQ(range.length, each.length) << each.header;
  }
}

}  // namespace
}  // namespace kestrune::service
