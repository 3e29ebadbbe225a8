// Readers, writers, a fetcher and a sender on one file at once, with a model of its bytes: the file consists of slots, each
// filled with one word that says which slot and which write it is. Whoever reads a slot must find writes that were not
// answered yet when the read began, or the last one that was.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <random>
#include <thread>

#include "host/content/test/ContentHarness.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

constexpr std::size_t kSlots = 256;
constexpr std::size_t kSlotBytes =
    65'544 + 8'192;  // no multiple of a page; the file is fetched in part
constexpr std::size_t kWords = kSlotBytes / 8;

std::string slotText(std::size_t slot, std::uint64_t write) {
  const std::uint64_t word = (static_cast<std::uint64_t>(slot) << 40U) | write;
  std::string text(kSlotBytes, '\0');
  for (std::size_t i = 0; i < kWords; ++i) std::memcpy(text.data() + i * 8, &word, 8);
  return text;
}

class FileObjectRandomTest : public testing::TestWithParam<Parts>, public ContentHarness {
 protected:
  FileObjectRandomTest() : ContentHarness(GetParam()) {}

  struct Slot {
    std::atomic<std::uint64_t> begun = 0;
    std::atomic<std::uint64_t> answered = 0;
  };

  void SetUp() override {
    std::string contents;
    for (std::size_t slot = 0; slot < kSlots; ++slot) contents += slotText(slot, 0);
    store().put(contents, "1");
    store().setReadAhead(3 * kMiB);
    object_ = fresh();
  }

  // Whether the bytes are those of `slot`, of writes from `first` to `last`.
  void check(const std::string& text, std::size_t slot, std::uint64_t first, std::uint64_t last) {
    ASSERT_EQ(text.size(), kSlotBytes) << "slot " << slot;
    std::uint64_t least = UINT64_MAX;
    std::uint64_t most = 0;
    for (std::size_t i = 0; i < kWords; ++i) {
      std::uint64_t word = 0;
      std::memcpy(&word, text.data() + i * 8, 8);
      least = std::min(least, word);
      most = std::max(most, word);
    }
    const std::uint64_t base = static_cast<std::uint64_t>(slot) << 40U;
    ASSERT_GE(least, base | first) << "slot " << slot;
    ASSERT_LE(most, base | last) << "slot " << slot;
  }

  void readSome(std::mt19937& random) {
    object_->opened(false);
    for (int i = 0; i < 8; ++i) {
      const std::size_t slot = random() % kSlots;
      const std::uint64_t first = slots_[slot].answered;
      const auto offset = static_cast<std::int64_t>(slot * kSlotBytes);
      LocalFilePtr file = object_->present(offset, kSlotBytes);
      if (!file) {
        const auto answer = startRead(object_, offset, kSlotBytes).get();
        if (!answer.ok()) {
          // Whoever closed last was somebody else's reader.
          ASSERT_EQ(errnoOf(answer), -1) << answer.error()->localizedDescription();
          continue;
        }
        file = answer.value();
      }
      const std::string text = bytes(file, offset, kSlotBytes);
      check(text, slot, first, slots_[slot].begun);
      ++reads_;
    }
    object_->closed(false);
  }

  // Each writer has slots of its own.
  void writeSome(std::mt19937& random, std::size_t writer) {
    object_->opened(true);
    for (int i = 0; i < 4; ++i) {
      const std::size_t slot = (random() % (kSlots / 2)) * 2 + writer;
      const std::uint64_t write = ++slots_[slot].begun;
      ASSERT_EQ(ContentHarness::write(object_, static_cast<std::int64_t>(slot * kSlotBytes),
                                      slotText(slot, write)),
                0);
      slots_[slot].answered = write;
      ++writes_;
    }
    object_->closed(true);
  }

  void sendSome(std::mt19937& random) {
    std::array<std::uint64_t, kSlots> first{};
    for (std::size_t slot = 0; slot < kSlots; ++slot) first[slot] = slots_[slot].answered;
    const auto answer = object_->snapshot();
    if (!answer.ok()) {
      const int error = errnoOf(answer);
      ASSERT_TRUE(error == EAGAIN || error == EBUSY || error == ENODATA) << error;
      return;
    }
    const auto& snapshot = answer.value();
    const std::string text = support::contentsOf(snapshot.path);
    ASSERT_EQ(text.size(), kSlots * kSlotBytes);
    for (std::size_t slot = 0; slot < kSlots; ++slot) {
      check(text.substr(slot * kSlotBytes, kSlotBytes), slot, first[slot], slots_[slot].begun);
    }
    std::this_thread::yield();
    ASSERT_TRUE(support::contentsOf(snapshot.path) == text) << "a snapshot changed";
    if (random() % 4 != 0) {
      const std::string version = "sent " + std::to_string(snapshot.edits);
      store().put(text, version);
      object_->sent(snapshot.edits, version);
    }
    object_->giveBack(snapshot);
    ++snapshots_;
    try {
      object_->evict();
      ++evictions_;
    } catch (const platform::NSError& error) {
      ASSERT_EQ(error.code(), EBUSY);
    }
  }

  void checkAll(const FileObjectPtr& object) {
    ASSERT_EQ(fill(object), 0);
    const std::string text = readAll(object);
    ASSERT_EQ(text.size(), kSlots * kSlotBytes);
    for (std::size_t slot = 0; slot < kSlots; ++slot) {
      check(text.substr(slot * kSlotBytes, kSlotBytes), slot, slots_[slot].answered,
            slots_[slot].answered);
    }
  }

  FileObjectPtr object_;
  std::array<Slot, kSlots> slots_;
  std::atomic<int> reads_ = 0;
  std::atomic<int> writes_ = 0;
  std::atomic<int> snapshots_ = 0;
  std::atomic<int> evictions_ = 0;
};

TEST_P(FileObjectRandomTest, EverybodySeesTheBytesThatWereWritten) {
  constexpr unsigned kSeed = 20'240;
  std::atomic<bool> stops = false;
  std::vector<std::thread> threads;
  const auto run = [&](const std::function<void(std::mt19937&)>& work) {
    threads.emplace_back([&, work, seed = kSeed + threads.size()] {
      std::mt19937 random(static_cast<unsigned>(seed));
      while (!stops && !testing::Test::HasFatalFailure()) {
        work(random);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 2'000));
      }
    });
  };
  for (int i = 0; i < 4; ++i) run([&](auto& random) { readSome(random); });
  for (std::size_t i = 0; i < 2; ++i) run([&, i](auto& random) { writeSome(random, i); });
  run([&](auto&) { ASSERT_EQ(fill(object_), 0); });
  run([&](auto& random) { sendSome(random); });
  EXPECT_TRUE(support::waitUntil(
      [&] { return (reads_ > 300 && writes_ > 100 && snapshots_ > 5) || HasFailure(); },
      std::chrono::seconds(60)));
  stops = true;
  for (auto& thread : threads) thread.join();
  RecordProperty("reads", reads_);
  RecordProperty("writes", writes_);
  RecordProperty("snapshots", snapshots_);
  RecordProperty("evictions", evictions_);
  ASSERT_FALSE(HasFailure());
  checkAll(object_);
  // And after the end of the host in the middle of it.
  const ContentState committed = remembered().told();
  object_.reset();
  checkAll(with(committed));
}

INSTANTIATE_TEST_SUITE_P(Files, FileObjectRandomTest, testing::Values(Parts::asFiles));
INSTANTIATE_TEST_SUITE_P(Streams, FileObjectRandomTest, testing::Values(Parts::asStreams));

}  // namespace
}  // namespace kestrune::host::test
