#include "host/front/Handover.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "platform/values/NSError.h"

namespace kestrune::host {
namespace {

using platform::NSPOSIXError;
using Kind = CacheUpdate::Kind;

Handover sample() {
  Handover handover;
  handover.head.device = 7;
  handover.head.mountPoint = "/home/me/mount point";
  handover.replicaLock = 9;
  handover.restarts = 3;
  handover.begun = -5;
  handover.othersMayEnter = true;
  handover.init = std::string("\0init", 5);
  handover.initAnswer = "answer";
  handover.passthroughInUse = true;
  handover.nextHandle = 12;
  handover.nextNode = 100;
  handover.nodes = {{.id = 1, .item = 1, .references = 1},
                    {.id = 99,
                     .item = 1ULL << 60U,
                     .references = ~0ULL,
                     .isDetached = true,
                     .isExecutable = true,
                     .sizeBytes = 1LL << 40U,
                     .modified = {-1, 999'999'999},
                     .changed = {2, 3}}};
  handover.objects = {{.item = 5},
                      {.item = 6,
                       .isItems = false,
                       .number = 44,
                       .version = "\xff v",
                       .sizeBytes = 10,
                       .fetchableBytes = 9,
                       .present = "0-4",
                       .edits = 2,
                       .isEdited = true}};
  handover.files = {
      {.handle = 11, .backing = 2, .node = 99, .item = 6, .object = 1},
      {.handle = 3, .node = 2, .item = 5, .writes = true, .mayFetch = false, .listedEmpty = true}};
  handover.requests = {std::string(80, '\0'), "x"};
  handover.updates = {{Kind::entry, 4, "name", 0},
                      {Kind::deletion, 4, "gone", 8},
                      {Kind::attributes, 5, {}, 0},
                      {Kind::listing, 6, {}, 0}};
  return handover;
}

TEST(HandoverTest, IsReadAsItWasWritten) {
  const Handover given = sample();
  const Handover read = Handover::parse(given.encode());
  EXPECT_EQ(read.head.device, given.head.device);
  EXPECT_EQ(read.head.mountPoint, given.head.mountPoint);
  EXPECT_EQ(read.replicaLock, given.replicaLock);
  EXPECT_EQ(read.restarts, given.restarts);
  EXPECT_EQ(read.begun, given.begun);
  EXPECT_TRUE(read.othersMayEnter);
  EXPECT_FALSE(read.extendedAttributes);
  EXPECT_EQ(read.init, given.init);
  EXPECT_EQ(read.initAnswer, given.initAnswer);
  EXPECT_FALSE(read.passthroughOffered);
  EXPECT_TRUE(read.passthroughInUse);
  EXPECT_EQ(read.nextHandle, given.nextHandle);
  EXPECT_EQ(read.nextNode, given.nextNode);
  EXPECT_EQ(read.nodes, given.nodes);
  EXPECT_EQ(read.objects, given.objects);
  EXPECT_EQ(read.files, given.files);
  EXPECT_EQ(read.requests, given.requests);
  EXPECT_EQ(read.updates, given.updates);
}

TEST(HandoverTest, OneThatLacksBytesOrHasTooManyIsRefused) {
  const std::string bytes = sample().encode();
  for (std::size_t size = 0; size < bytes.size(); ++size)
    EXPECT_THROW(Handover::parse(bytes.substr(0, size)), NSPOSIXError) << size;
  EXPECT_THROW(Handover::parse(bytes + '\0'), NSPOSIXError);
}

TEST(HandoverTest, AnotherVersionIsRefusedButTellsWhereTheMountIs) {
  Handover next = sample();
  next.head.version = Handover::kVersion + 1;
  const std::string bytes = next.encode();
  try {
    Handover::parse(bytes);
    ADD_FAILURE() << "read";
  } catch (const NSPOSIXError& error) {
    EXPECT_NE(error.localizedDescription().find("is of version 2, where this program reads 1"),
              std::string::npos)
        << error.localizedDescription();
  }
  const std::string head = bytes.substr(0, 8 + 4 + 4 + 4 + 20);
  EXPECT_EQ(Handover::parseHead(head + "what the next version says").mountPoint,
            "/home/me/mount point");
  EXPECT_EQ(Handover::parseHead(head).device, 7);
}

TEST(HandoverTest, ValuesThatCannotBeAreRefused) {
  const auto refused = [](const auto& spoil) {
    Handover handover = sample();
    spoil(handover);
    EXPECT_THROW(Handover::parse(handover.encode()), NSPOSIXError);
  };
  refused([](Handover& it) { it.head.device = -1; });
  refused([](Handover& it) { it.head.mountPoint = "relative"; });
  refused([](Handover& it) { it.files[0].object = 2; });
  refused([](Handover& it) { it.files[0].handle = 12; });
  refused([](Handover& it) { it.files[0].handle = 0; });
  refused([](Handover& it) { it.files[0].backing = -1; });
  refused([](Handover& it) { it.nodes[0].id = 0; });
  refused([](Handover& it) { it.nodes[0].id = 100; });
  std::string other = sample().encode();
  other[0] = 'k';
  EXPECT_THROW(Handover::parse(other), NSPOSIXError);
}

// Whatever the bytes are, they are read or refused, without more memory than they have.
TEST(HandoverTest, HostileBytesDoNoHarm) {
  const std::string good = sample().encode();
  std::mt19937 random(1);
  int read = 0;
  for (int i = 0; i < 20'000; ++i) {
    std::string bytes = good;
    for (unsigned change = 0; change <= random() % 3; ++change)
      bytes[16 + random() % (bytes.size() - 16)] = static_cast<char>(random());
    try {
      static_cast<void>(Handover::parse(bytes));
      ++read;
    } catch (const NSPOSIXError&) {
    }
  }
  EXPECT_GT(read, 0);
  EXPECT_LT(read, 20'000);
}

}  // namespace
}  // namespace kestrune::host
