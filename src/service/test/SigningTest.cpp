#include "service/Signing.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <stdexcept>

#include "service/ServiceError.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::service {
namespace {

using std::chrono::seconds;
using std::chrono::system_clock;

const system_clock::time_point kNow{seconds(1'700'000'000)};

Signer signer(char keyByte = 'k') {
  return {platform::Secret(std::string(32, keyByte)), seconds(60)};
}

unsigned refusalOf(const std::string& method, const std::string& target,
                   system_clock::time_point now = kNow) {
  try {
    signer().verify(method, target, now);
  } catch (const ServiceError& error) {
    return error.status();
  }
  return 0;
}

TEST(Signing, AGrantSurvivesTheWayThroughAURL) {
  for (const StorageGrant& grant :
       {StorageGrant{StorageKind::tree, "GET", "/Docs/a b&c=d+e;f@g%?#ä.txt"},
        StorageGrant{StorageKind::tree, "PUT", "/x"},
        StorageGrant{StorageKind::staged, "PUT", "0123"},
        StorageGrant{StorageKind::part, "PUT", "abc/17"}}) {
    const StorageGrant read = signer().verify(grant.method, signer().sign(grant, kNow), kNow);
    EXPECT_EQ(read.key, grant.key);
    EXPECT_EQ(read.kind, grant.kind);
    EXPECT_EQ(read.method, grant.method);
  }
}

TEST(Signing, TheTargetIsPlainASCIIWithoutSpaces) {
  const std::string target = signer().sign({StorageKind::tree, "GET", "/a b/ä?"}, kNow);
  EXPECT_TRUE(target.starts_with("/storage/tree/a%20b/%C3%A4%3F?expires=1700000060&signature="))
      << target;
}

TEST(Signing, TheHeadOfWhatMayBeReadMayBeAskedFor) {
  const std::string target = signer().sign({StorageKind::tree, "GET", "/a"}, kNow);
  EXPECT_EQ(signer().verify("HEAD", target, kNow).method, "GET");
}

TEST(Signing, AnyChangeIsRefused) {
  const std::string target = signer().sign({StorageKind::tree, "GET", "/a"}, kNow);
  ASSERT_EQ(refusalOf("GET", target), 0U);
  EXPECT_EQ(refusalOf("PUT", target), 403U);
  const std::string query = target.substr(target.find('?'));
  for (const char* path : {"/storage/tree/b", "/storage/tree/a/b", "/storage/staged/a",
                           "/storage/part/a", "/storage/tree//a"}) {
    EXPECT_EQ(refusalOf("GET", path + query), 403U) << path;
  }
  for (std::size_t i = target.find("expires="); i < target.size(); ++i) {
    std::string changed = target;
    changed[i] = changed[i] == '1' ? '2' : '1';
    EXPECT_EQ(refusalOf("GET", changed), 403U) << changed;
  }
  EXPECT_EQ(refusalOf("GET", target + "0"), 403U);
  EXPECT_EQ(refusalOf("GET", target.substr(0, target.size() - 1)), 403U);
  EXPECT_EQ(refusalOf("GET", target + "&x=y"), 403U);
  EXPECT_EQ(refusalOf("GET", target.substr(0, target.find("&signature"))), 403U);
  EXPECT_EQ(refusalOf("GET", "/storage/tree/a"), 403U);
  EXPECT_EQ(refusalOf("GET", "/storage/tree/a?"), 403U);
  EXPECT_THROW(signer('o').verify("GET", target, kNow), ServiceError);
}

TEST(Signing, ExpiresToTheSecond) {
  const std::string target = signer().sign({StorageKind::tree, "GET", "/a"}, kNow);
  EXPECT_EQ(refusalOf("GET", target, kNow + seconds(59)), 0U);
  EXPECT_EQ(refusalOf("GET", target, kNow + seconds(60)), 403U);
}

TEST(Signing, OtherPathsAreUnknown) {
  for (const char* target :
       {"/storage", "/storage/", "/storage/tree", "/storage/other/a?expires=1&signature=2", "/x"}) {
    EXPECT_EQ(refusalOf("GET", target), 404U) << target;
  }
}

TEST(Signing, TheKeyIsMadeOnceAndPrivate) {
  const support::TemporaryDirectory directory;
  const auto file = directory.path() / "key";
  const platform::Secret made = loadSigningKey(file);
  EXPECT_EQ(made.reveal().size(), 32U);
  EXPECT_EQ(loadSigningKey(file).reveal(), made.reveal());
  EXPECT_NE(loadSigningKey(directory.path() / "other").reveal(), made.reveal());
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST(Signing, ADamagedKeyIsRefused) {
  const support::TemporaryDirectory directory;
  EXPECT_THROW(loadSigningKey(directory.write("key", "short")), std::runtime_error);
}

TEST(PercentEncoding, DecodesWhatClientsSend) {
  EXPECT_EQ(percentDecode("%2FDocs%2Fa%20b&c=d+e;f@g"), "/Docs/a b&c=d+e;f@g");
  EXPECT_EQ(percentDecode("%c3%A4"), "ä");
  EXPECT_EQ(percentDecode(""), "");
  EXPECT_EQ(percentDecode("%25"), "%");
  for (const char* text : {"%", "%2", "a%", "%zz", "%2g", "%%20"})
    EXPECT_THROW(percentDecode(text), ServiceError) << text;
}

}  // namespace
}  // namespace kestrune::service
