// A real folder whose host is replaced, and what a test of that says and asks.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "tests/mount/LiveMount.h"
#include "tests/support/Waiting.h"

namespace kestrune::mounttest {

class LiveRestartTest : public testing::Test {
 protected:
  void SetUp() override {
    if (const char* reason = whyNoMount()) GTEST_SKIP() << reason;
    service_ = std::make_unique<LiveService>();
    std::filesystem::create_directory(service_->root() / "docs");
    std::ofstream(service_->root() / "docs/a.txt") << "hello";
    std::ofstream(service_->root() / "docs/b.txt") << "other";
    mount_ = std::make_unique<LiveMount>(*service_);
    ASSERT_TRUE(support::waitUntil([this] { return mount_->control("status").status == 0; }));
  }
  void TearDown() override {
    if (HasFailure() && mount_)
      std::cout << "the host's log:\n" << support::contentsOf(mount_->logFile());
  }
  LiveService& service() { return *service_; }
  LiveMount& mount() { return *mount_; }
  void restart() {
    const auto result = mount().control("restart");
    ASSERT_EQ(result.status, 0) << result.output;
    EXPECT_THAT(result.output, testing::HasSubstr("serves"));
  }
  std::filesystem::path outside() const { return outside_.path(); }
  /// Others put a whole file into the store, and it shows.
  void putAtStore(const std::string& name, const std::string& bytes) {
    std::ofstream(outside() / "made") << bytes;
    std::filesystem::rename(outside() / "made", service().root() / name);
    ASSERT_TRUE(support::waitUntil([&] {
      std::error_code error;
      return std::filesystem::file_size(mount() / name, error) == bytes.size();
    })) << name;
  }
  /// Has the mount run from a file that a test can replace.
  std::filesystem::path moveProgram() {
    const std::filesystem::path program = outside() / "kestrune";
    for (const char* name : {"kestrune", "kestrune-fileprovider"})
      std::filesystem::copy_file(std::filesystem::path(KESTRUNE_BIN_DIR) / name, outside() / name);
    mount().end(SIGTERM);
    mount().setProgram(program);
    mount().start();
    EXPECT_TRUE(support::waitUntil([this] { return mount().control("status").status == 0; }));
    return program;
  }
  /// In the place of the program comes a script.
  void putScript(const std::filesystem::path& program, const std::string& script) {
    std::ofstream(outside() / "new") << "#!/bin/sh\n" << script << "\n";
    std::filesystem::permissions(outside() / "new", std::filesystem::perms::owner_all);
    std::filesystem::rename(outside() / "new", program);
  }
  void expectUnmounted() {
    const auto status = mount().host().waitForEnd();
    EXPECT_TRUE(status.has_value());
    EXPECT_FALSE(mount().isServed());
    EXPECT_TRUE(std::filesystem::is_empty(mount().mountPoint()));
  }

 private:
  support::TemporaryDirectory outside_;
  std::unique_ptr<LiveService> service_;
  std::unique_ptr<LiveMount> mount_;
};

}  // namespace kestrune::mounttest
