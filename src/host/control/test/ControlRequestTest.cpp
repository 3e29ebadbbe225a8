#include "host/control/ControlRequest.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrune::host {
namespace {

using Op = ControlRequest::Op;

std::string refusalOf(std::string_view line) {
  try {
    ControlRequest::parse(line);
  } catch (const InvalidRequest& error) {
    return error.what();
  }
  return {};
}

TEST(ControlRequest, IsReadWithItsArguments) {
  const auto sync =
      ControlRequest::parse(R"({"op":"sync","path":"/a b/ü","wait":true,"timeout":5,"most":7})");
  EXPECT_EQ(sync.op, Op::sync);
  EXPECT_EQ(sync.path, "/a b/ü");
  EXPECT_TRUE(sync.waits);
  EXPECT_EQ(sync.timeout.count(), 5);
  EXPECT_EQ(sync.most, 7U);
  const auto pending = ControlRequest::parse(R"({"op":"pending"})");
  EXPECT_EQ(pending.path, "/");
  EXPECT_EQ(pending.most, ControlRequest::kDefaultChanges);
  const auto pin = ControlRequest::parse(R"({"op":"pin","paths":["/a",{"hex":"2fff0a"}]})");
  EXPECT_EQ(pin.paths, (std::vector<std::string>{"/a", "/\xff\n"}));
}

TEST(ControlRequest, SurvivesItsOwnEncoding) {
  for (const Op op : {Op::about, Op::status, Op::pending, Op::sync, Op::pin, Op::unpin, Op::evict,
                      Op::download, Op::link, Op::state, Op::why, Op::log, Op::end,
                      Op::allowDeletions, Op::keepDeleted, Op::restart}) {
    ControlRequest request;
    request.op = op;
    if (op == Op::pending || op == Op::sync) request.path = "/x\xff";
    if (op >= Op::pin && op <= Op::why) request.paths = {"/", "/a\n", "/\xc3"};
    if (op == Op::sync) request.waits = true;
    const std::string line = request.encode();
    EXPECT_EQ(line.find('\n'), std::string::npos);
    const auto read = ControlRequest::parse(line);
    EXPECT_EQ(read.op, op);
    EXPECT_EQ(read.path, request.path);
    EXPECT_EQ(read.paths, request.paths);
    EXPECT_EQ(read.waits, request.waits);
  }
}

TEST(ControlRequest, WhatIsNoRequestIsRefusedWithAReason) {
  const char* const lines[] = {
      "",
      "nonsense",
      "[]",
      "{}",
      R"({"op":5})",
      R"({"op":"format"})",
      R"({"op":"pin"})",
      R"({"op":"pin","paths":[]})",
      R"({"op":"pin","paths":"/a"})",
      R"({"op":"pin","paths":[5]})",
      R"({"op":"pin","paths":["a"]})",
      R"({"op":"pin","paths":["/a/"]})",
      R"({"op":"pin","paths":["/a/../b"]})",
      R"({"op":"pin","paths":["//a"]})",
      R"({"op":"pin","paths":["/a\u0000b"]})",
      R"({"op":"pin","paths":[""]})",
      R"({"op":"pin","paths":[{"hex":"2"}]})",
      R"({"op":"pin","paths":[{"hex":"2fzz"}]})",
      R"({"op":"pin","paths":[{"hex":"2f","x":1}]})",
      R"({"op":"pin","path":"/a"})",
      R"({"op":"status","path":"/a"})",
      R"({"op":"pending","most":-1})",
      R"({"op":"pending","most":1.5})",
      R"({"op":"pending","most":1001})",
      R"({"op":"sync","wait":1})",
      R"({"op":"sync","timeout":86401})",
      R"({"op":"sync","timeout":18446744073709551616})",
      R"({"op":"sync","wiat":true})",
  };
  for (const char* line : lines) EXPECT_NE(refusalOf(line), "") << line;
  EXPECT_NE(refusalOf(std::string("{\"op\":\"status\"}\0", 16)), "");
}

TEST(ControlRequest, TooManyPathsAreRefused) {
  std::string line = R"({"op":"pin","paths":["/a")";
  for (std::size_t i = 0; i < ControlRequest::kMostPaths; ++i) line += R"(,"/a")";
  EXPECT_NE(refusalOf(line + "]}"), "");
}

}  // namespace
}  // namespace kestrune::host
