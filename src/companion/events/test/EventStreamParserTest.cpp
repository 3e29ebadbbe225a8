#include "companion/events/EventStreamParser.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrune {
namespace {

/// The events in `stream`, whole and in pieces of every size.
void expectEvents(std::size_t count, const std::string& stream) {
  for (std::size_t piece = stream.size(); piece > 0; --piece) {
    EventStreamParser parser;
    std::size_t events = 0;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
      events += parser.take(std::string_view(stream).substr(at, piece));
    }
    EXPECT_EQ(events, count) << stream << " in pieces of " << piece;
  }
}

TEST(EventStreamParser, AnEventIsDataAndAnEmptyLine) {
  expectEvents(1, "event: change\ndata: {}\n\n");
  expectEvents(1, "data\n\n");
  expectEvents(1, "data:\n\n");
  expectEvents(1, "data: a\ndata: b\nid: 5\n\n");
  expectEvents(2, "data: a\n\ndata: b\n\n");
}

TEST(EventStreamParser, LinesEndInAnyOfThreeWays) {
  expectEvents(2, "data: a\r\n\r\ndata: b\r\n\r\n");
  expectEvents(2, "data: a\r\rdata: b\r\r");
  expectEvents(1, "data: a\r\n\n");
}

TEST(EventStreamParser, AllElseIsNone) {
  expectEvents(0, ": hello\n\n: keep-alive\n\n");
  expectEvents(0, "event: change\n\n");
  expectEvents(0, "data: a\n");
  expectEvents(0, "\n\n\n");
  expectEvents(0, ":data\n\n");
  expectEvents(0, "datax: a\n\n");
  expectEvents(0, "database\n\n");
  expectEvents(0, " data: a\n\n");
}

TEST(EventStreamParser, AMarkInFrontIsSkipped) {
  expectEvents(1,
               "\xEF\xBB\xBF"
               "data: a\n\n");
  expectEvents(0,
               "x\n\n\xEF\xBB\xBF"
               "data: a\n\n");
}

TEST(EventStreamParser, AnEndlessLineTakesNoMemory) {
  EventStreamParser parser;
  const std::string piece(1U << 20U, 'x');
  for (int i = 0; i < 100; ++i) EXPECT_EQ(parser.take(piece), 0U);
  EXPECT_EQ(parser.take("\n\ndata: a\n\n"), 1U);
}

}  // namespace
}  // namespace kestrune
