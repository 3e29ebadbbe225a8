#include "host/front/AnswerPipe.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>

namespace kestrune::host {
namespace {

std::string pattern(std::size_t length) {
  std::string bytes(length, 0);
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<char>(i * 31 + i / 4096);
  return bytes;
}

// A file in memory in the place of the source; a pipe in the place of the device, which takes a message at once.
class AnswerPipeTest : public testing::Test {
 protected:
  static constexpr std::size_t kLength = 600'000;

  AnswerPipeTest() : file_(::memfd_create("file", MFD_CLOEXEC)), bytes_(pattern(kLength)) {
    EXPECT_EQ(::pwrite(file_.number(), bytes_.data(), bytes_.size(), 0),
              static_cast<ssize_t>(bytes_.size()));
    std::array<int, 2> ends = {};
    EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
    out_ = std::make_unique<Descriptor>(ends[0]);
    device_ = std::make_unique<Descriptor>(ends[1]);
    EXPECT_GE(::fcntl(ends[1], F_SETPIPE_SZ, 1 << 20), 1 << 20);
  }

  std::optional<ssize_t> send(off_t offset, std::size_t length) {
    return pipe_.send(device_->number(), {header_.data(), header_.size()}, file_.number(), offset,
                      length);
  }
  std::string received() const {
    std::string all(2 * kLength, 0);
    std::size_t filled = 0;
    for (;;) {
      const ssize_t count = ::read(out_->number(), all.data() + filled, all.size() - filled);
      if (count <= 0) break;
      filled += static_cast<std::size_t>(count);
    }
    all.resize(filled);
    return all;
  }
  void expectSent(off_t offset, std::size_t length) {
    EXPECT_EQ(send(offset, length), static_cast<ssize_t>(header_.size() + length));
    EXPECT_TRUE(received() == header_ + bytes_.substr(static_cast<std::size_t>(offset), length));
  }

  std::string header_ = "sixteen bytes...";
  Descriptor file_;
  const std::string bytes_;
  std::unique_ptr<Descriptor> out_;
  std::unique_ptr<Descriptor> device_;
  AnswerPipe pipe_;
};

TEST_F(AnswerPipeTest, HeaderAndBytesComeInOrderFromAnyOffset) {
  expectSent(0, 4096);
  expectSent(0, 512 << 10);
  expectSent(4095, 512 << 10);
  expectSent(8192, 1);
  expectSent(70'001, 100'000);
}

TEST_F(AnswerPipeTest, AFileThatIsTooShortSendsNothing) {
  EXPECT_EQ(send(kLength - 1000, 70'000), std::nullopt);
  EXPECT_EQ(received(), "");
  expectSent(100, 1000);  // nothing of the failure is left in the pipe
}

TEST_F(AnswerPipeTest, ADeviceThatRefusesLeavesNothingBehind) {
  const Descriptor readOnly(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(
      pipe_.send(readOnly.number(), {header_.data(), header_.size()}, file_.number(), 0, 9999),
      std::nullopt);
  expectSent(100, 9999);
}

TEST_F(AnswerPipeTest, WhatNoPipeHoldsIsNotTriedAgain) {
  EXPECT_EQ(send(0, (std::size_t{1} << 31U) + 4096), std::nullopt);
  EXPECT_EQ(send(0, 4096), std::nullopt);
  EXPECT_EQ(received(), "");
}

}  // namespace
}  // namespace kestrune::host
