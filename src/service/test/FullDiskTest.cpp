// A disk that is full: a small file system of its own, mounted in a mount namespace of the test.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <optional>
#include <string>

#include "platform/values/Json.h"
#include "service/test/RunningService.h"
#include "tests/support/Waiting.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using platform::Json;

class FullDisk : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root may mount a small file system";
    // Nothing of this is seen by other processes, and it ends with this one.
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      GTEST_SKIP() << "no mount namespace can be made here";
    }
    ASSERT_EQ(::mount("tmpfs", disk.path().c_str(), "tmpfs", 0, "size=8m"), 0);
    fs::create_directory(disk.path() / "tree");
    service.emplace([this](Options& options) {
      options.root = disk.path() / "tree";
      options.staging = disk.path() / "staging";
    });
  }
  void TearDown() override {
    service.reset();
    ::umount2(disk.path().c_str(), MNT_DETACH);
  }
  std::size_t leftovers() const {
    std::size_t count = 0;
    for (const char* folder : {"drafts", "objects"}) {
      for (const auto& entry : fs::directory_iterator(disk.path() / "staging" / folder))
        count += entry.exists() ? 1 : 0;
    }
    return count;
  }

  support::TemporaryDirectory disk;
  std::optional<RunningService> service;
};

TEST_F(FullDisk, AnAnnouncedUploadIsRefusedAndLeavesNothing) {
  const std::string target = service->presigned("presign-upload", {{"path", "/up.bin"}});
  EXPECT_EQ(service->storage("PUT", target, {}, std::string(9U << 20U, 'x')).status, 507U);
  EXPECT_TRUE(support::waitUntil([&] { return leftovers() == 0; }));
  EXPECT_TRUE(fs::is_empty(disk.path() / "tree"));
  EXPECT_EQ(service->storage("PUT", target, {}, "small").status, 200U);
}

TEST_F(FullDisk, AnUploadOfUnknownLengthEndsWhereTheDiskDoes) {
  Client client(service->port());
  client.send("PUT " + service->presigned("presign-upload", {{"path", "/up.bin"}}) +
              " HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n");
  const std::string chunk = "100000\r\n" + std::string(0x100000, 'x') + "\r\n";
  for (int i = 0; i < 10; ++i) client.send(chunk);
  EXPECT_EQ(client.readAnswer().status, 507U);
  EXPECT_TRUE(support::waitUntil([&] { return leftovers() == 0; }));
  EXPECT_TRUE(fs::is_empty(disk.path() / "tree"));
}

TEST_F(FullDisk, APartThatDoesNotFitIsRefusedAndTheUploadCanBeAborted) {
  const Json upload = service->post("direct-multipart-init", {{"path", "/up.bin"}}).json();
  const auto target = [&](int number) {
    return service->presigned(
        "direct-multipart-part-url",
        {{"key", upload["key"]}, {"s3UploadId", upload["s3UploadId"]}, {"partNumber", number}});
  };
  EXPECT_EQ(service->storage("PUT", target(1), {}, std::string(5U << 20U, 'x')).status, 200U);
  EXPECT_EQ(service->storage("PUT", target(2), {}, std::string(5U << 20U, 'x')).status, 507U);
  EXPECT_EQ(service
                ->post("direct-multipart-abort",
                       {{"key", upload["key"]}, {"s3UploadId", upload["s3UploadId"]}})
                .status,
            200U);
  EXPECT_EQ(leftovers(), 0U);
}

}  // namespace
}  // namespace kestrune::service
