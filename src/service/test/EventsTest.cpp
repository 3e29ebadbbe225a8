// Server-sent events.
#include <gtest/gtest.h>

#include <string>

#include "platform/values/Json.h"
#include "service/test/RunningService.h"

namespace kestrune::service {
namespace {

const std::string kRequest = std::string("GET /events HTTP/1.1\r\nAuthorization: Bearer ") +
                             RunningService::kToken + "\r\n\r\n";
constexpr const char* kChange = "event: change\ndata: {}\n\n";

class Events : public ::testing::Test {
 protected:
  Events() : listener(service.port()) {
    listener.send(kRequest);
    head = listener.readUntil(": hello\n\n");
  }
  /// Announces what goes through it, and not once more what it notices in the tree.
  RunningService service{[](Options& options) { options.watchTree = false; }};
  Client listener;
  std::string head;
};

TEST_F(Events, AreAStreamOfText) {
  EXPECT_NE(head.find("Content-Type: text/event-stream"), std::string::npos);
}

TEST_F(Events, FollowEveryKindOfChangeAndNameNothing) {
  service.write("b.txt", "x");
  service.post("mkdir", {{"path", "/Docs"}});
  std::string seen = listener.readUntil(kChange);
  service.post("move", {{"src", "/Docs"}, {"dst", "/Papers"}});
  seen += listener.readUntil(kChange);
  service.remove("%2FPapers");
  seen += listener.readUntil(kChange);
  service.storage("PUT", service.presigned("presign-upload", {{"path", "/b.txt"}}), {}, "y");
  seen += listener.readUntil(kChange);
  const auto direct = service.post("direct-presign-upload", {{"path", "/c.txt"}}).json();
  service.storage("PUT", service.targetOf(direct["url"]), {}, "z");
  service.post("direct-import", {{"key", direct["key"]}, {"path", "/c.txt"}});
  seen += listener.readUntil(kChange);
  for (const char* name : {"Docs", "Papers", "b.txt", "c.txt"})
    EXPECT_EQ(seen.find(name), std::string::npos);
}

TEST_F(Events, AFailedChangeIsNone) {
  service.remove("%2Fmissing");
  service.post("mkdir", {{"path", "/missing/x"}});
  service.server().stop();
  EXPECT_EQ(listener.readUntil("0\r\n\r\n").find("event"), std::string::npos);
}

TEST_F(Events, EndWithTheServiceAtOnce) {
  EXPECT_EQ(service.server().stop(), Server::End::inOrder);
  EXPECT_EQ(listener.readUntil("0\r\n\r\n"), "\r\n0\r\n\r\n");
}

}  // namespace
}  // namespace kestrune::service
