#include "host/front/OpenHandles.h"

#include <gtest/gtest.h>

namespace kestrune::host {
namespace {

OpenHandle handleOf(NodeId node) { return {std::make_shared<OpenFile>(node)}; }

TEST(OpenHandlesTest, EachHasANumberOfItsOwn) {
  OpenHandles handles;
  const auto one = handles.add(handleOf(5));
  const auto other = handles.add(handleOf(6));
  EXPECT_NE(one, 0U);
  EXPECT_NE(one, other);
  EXPECT_EQ(handles.at(one).file->node, 5U);
  EXPECT_EQ(handles.remove(one).file->node, 5U);
  EXPECT_EQ(handles.all().size(), 1U);
  EXPECT_GT(handles.add(handleOf(7)), other);
}

TEST(OpenHandlesTest, NumbersGoOnWhereAnotherEnded) {
  OpenHandles before;
  before.add(handleOf(5));
  const auto kept = before.add(handleOf(6));
  OpenHandles after;
  after.beginAt(before.next());
  after.restore(kept, handleOf(6));
  EXPECT_EQ(after.at(kept).file->node, 6U);
  EXPECT_GT(after.add(handleOf(7)), kept);
}

}  // namespace
}  // namespace kestrune::host
