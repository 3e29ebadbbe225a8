// One file, and a long row of random reads, writes, truncations and maps of it, against a text in memory. The seed is
// printed; KESTRUNE_SEED repeats a run, KESTRUNE_SEQUENCES makes it longer.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <random>

#include "tests/mount/FrontMount.h"

namespace kestrune::mounttest {
namespace {

constexpr std::size_t kLargest = 300'000;

std::uint64_t numberFrom(const char* variable, std::uint64_t otherwise) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

class FrontRandomTest : public FrontTest {
 protected:
  std::size_t below(std::size_t limit) { return limit == 0 ? 0 : random_() % limit; }
  std::string letters(std::size_t length) {
    std::string text(length, '\0');
    for (char& letter : text) letter = static_cast<char>('a' + random_() % 26);
    return text;
  }
  void reopen(int flags) {
    file_.reset();
    file_ = std::make_unique<FileNumber>(at("a"), flags);
  }

  void write() {
    const std::size_t from = below(kLargest);
    const std::string text = letters(1 + below(std::min<std::size_t>(kLargest - from, 70'000)));
    if (model_.size() < from + text.size()) model_.resize(from + text.size());
    model_.replace(from, text.size(), text);
    ASSERT_EQ(::pwrite(*file_, text.data(), text.size(), static_cast<off_t>(from)),
              static_cast<ssize_t>(text.size()));
  }
  void append() {
    reopen(O_RDWR | O_APPEND);
    const std::string text = letters(1 + below(5'000));
    ASSERT_EQ(::write(*file_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    model_ += text;
    reopen(O_RDWR);
  }
  void read() {
    const std::size_t from = below(model_.size() + 1'000);
    const std::size_t length = below(70'000);
    const std::string expected = from < model_.size() ? model_.substr(from, length) : std::string();
    ASSERT_TRUE(bytesOf(*file_, from, length) == expected);
  }
  void changeLength() {
    const std::size_t length = below(kLargest);
    if (below(2) == 0) {
      ASSERT_EQ(::ftruncate(*file_, static_cast<off_t>(length)), 0);
    } else {
      ASSERT_EQ(::truncate(at("a").c_str(), static_cast<off_t>(length)), 0);
    }
    model_.resize(length);
  }
  void reserve() {
    const std::size_t end = 1 + below(kLargest);
    ASSERT_EQ(::posix_fallocate(*file_, 0, static_cast<off_t>(end)), 0);
    if (model_.size() < end) model_.resize(end);
  }
  void map(bool writes) {
    if (model_.empty()) return;
    auto* const bytes = static_cast<char*>(
        ::mmap(nullptr, model_.size(), PROT_READ | PROT_WRITE, MAP_SHARED, *file_, 0));
    ASSERT_NE(bytes, MAP_FAILED);
    const std::size_t from = below(model_.size());
    const std::string text = letters(std::min<std::size_t>(model_.size() - from, 20'000));
    if (writes) {
      std::memcpy(bytes + from, text.data(), text.size());
      model_.replace(from, text.size(), text);
      if (below(2) == 0) ASSERT_EQ(::msync(bytes, model_.size(), MS_SYNC), 0);
    }
    ASSERT_EQ(std::memcmp(bytes, model_.data(), model_.size()), 0);
    ::munmap(bytes, model_.size());
  }
  // Everybody else, read by the kernel itself where it may.
  void readAnew() {
    file_.reset();
    ASSERT_TRUE(bytesOf(at("a")) == model_);
    reopen(O_RDWR);
  }
  void readBeside() { ASSERT_TRUE(bytesOf(at("a")) == model_); }
  // Somebody reads while the file is opened for writing again.
  void writeBesideAReader() {
    file_.reset();
    const FileNumber reader(at("a"), O_RDONLY);
    static_cast<void>(bytesOf(reader, 0, 100));
    reopen(O_RDWR);
    write();
    const std::size_t from = below(model_.size());
    ASSERT_TRUE(bytesOf(reader, from, 5'000) == model_.substr(from, 5'000) ||
                bytesOf(reader, from, 5'000).size() < 5'000);
  }

  void step() {
    switch (below(12)) {
      case 0:
      case 1:
      case 2:
        return write();
      case 3:
      case 4:
        return read();
      case 5:
        return changeLength();
      case 6:
        return map(false);
      case 7:
        return map(true);
      case 8:
        return readAnew();
      case 9:
        return readBeside();
      case 10:
        return below(2) == 0 ? append() : reserve();
      default:
        return writeBesideAReader();
    }
  }

  std::mt19937_64 random_;
  std::string model_;
  std::unique_ptr<FileNumber> file_;
};

TEST_F(FrontRandomTest, TheFileIsWhatWasDoneToIt) {
  const auto seed = numberFrom("KESTRUNE_SEED", std::random_device()());
  const auto steps = numberFrom("KESTRUNE_SEQUENCES", 1'500);
  std::cout << "KESTRUNE_SEED=" << seed << "\n";
  random_.seed(seed);
  file_ = std::make_unique<FileNumber>(at("a"), O_RDWR | O_CREAT);
  for (std::uint64_t i = 0; i < steps; ++i) {
    step();
    if (HasFatalFailure()) FAIL() << "in step " << i << " of seed " << seed;
    ASSERT_EQ(static_cast<std::size_t>(statusOf(at("a")).st_size), model_.size()) << i;
  }
  readAnew();
  file_.reset();
}

}  // namespace
}  // namespace kestrune::mounttest
