#include "service/WebSessions.h"

#include <gtest/gtest.h>

#include <string>

namespace kestrune::service {
namespace {

constexpr std::int64_t kNow = 1'700'000'000;

platform::Secret secret(const std::string& text) { return platform::Secret(text); }

struct Sessions : ::testing::Test {
  WebSessions sessions{secret("key"), secret("token")};
  std::string value = sessions.begin(kNow);
};

TEST_F(Sessions, LastTheirTimeAndNoLonger) {
  const std::int64_t end = kNow + WebSessions::kLifetime.count();
  EXPECT_TRUE(sessions.accepts(value, kNow));
  EXPECT_TRUE(sessions.accepts(value, end - 1));
  EXPECT_FALSE(sessions.accepts(value, end));
}

TEST_F(Sessions, SurviveARestartButNotAnotherTokenOrKey) {
  EXPECT_TRUE(WebSessions(secret("key"), secret("token")).accepts(value, kNow));
  EXPECT_FALSE(WebSessions(secret("key"), secret("token2")).accepts(value, kNow));
  EXPECT_FALSE(WebSessions(secret("key2"), secret("token")).accepts(value, kNow));
}

TEST_F(Sessions, NoChangedByteIsAccepted) {
  for (std::size_t i = 0; i < value.size(); ++i) {
    std::string changed = value;
    changed[i] = changed[i] == '1' ? '2' : '1';
    EXPECT_FALSE(sessions.accepts(changed, kNow)) << i;
  }
  for (const char* other : {"", ".", "..", "9999999999.00."})
    EXPECT_FALSE(sessions.accepts(other, kNow)) << other;
  EXPECT_FALSE(sessions.accepts(value + "0", kNow));
}

TEST_F(Sessions, EndBeforeTheirTimeEachForItself) {
  const std::string other = sessions.begin(kNow);
  EXPECT_NE(other, value);
  sessions.end(value, kNow);
  EXPECT_FALSE(sessions.accepts(value, kNow));
  EXPECT_TRUE(sessions.accepts(other, kNow));
  sessions.end(other, kNow + 1);
  EXPECT_FALSE(sessions.accepts(value, kNow + 1));
}

TEST_F(Sessions, AreFoundAmongOtherCookies) {
  const std::string& name = sessions.cookieName();
  EXPECT_EQ(sessions.find("a=b; " + name + "=x; " + name + "=" + value + "; c=d", kNow), value);
  EXPECT_EQ(sessions.find(name + "=" + value, kNow), value);
  EXPECT_EQ(sessions.find("x" + name + "=" + value, kNow), "");
  EXPECT_EQ(sessions.find(name + value, kNow), "");
  EXPECT_EQ(sessions.find("", kNow), "");
}

TEST_F(Sessions, NeitherTokenNorKeyIsInThem) {
  EXPECT_EQ(value.find("token"), std::string::npos);
  EXPECT_NE(WebSessions(secret("key2"), secret("token")).cookieName(), sessions.cookieName());
}

}  // namespace
}  // namespace kestrune::service
