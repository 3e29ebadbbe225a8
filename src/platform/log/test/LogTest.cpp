#include "platform/log/Log.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <thread>

#include "platform/values/Mutex.h"

namespace kestrune::platform {
namespace {

class KeepingSink : public LogSink {
 public:
  void write(const LogRecord& record) override {
    MutexLock lock(mutex_);
    records_.push_back(record);
  }
  std::vector<LogRecord> records() const {
    MutexLock lock(mutex_);
    return records_;
  }

 private:
  mutable Mutex mutex_;
  std::vector<LogRecord> records_ GUARDED_BY(mutex_);
};

TEST(LogTest, LevelsHaveTheirNames) {
  EXPECT_EQ(logLevelName(LogLevel::debug), "debug");
  EXPECT_EQ(logLevelName(LogLevel::info), "info");
  EXPECT_EQ(logLevelName(LogLevel::standard), "default");
  EXPECT_EQ(logLevelName(LogLevel::error), "error");
  EXPECT_EQ(logLevelName(LogLevel::fault), "fault");
}

TEST(LogTest, RecordHoldsTheCallUnrendered) {
  const auto sink = std::make_shared<KeepingSink>();
  setLogSink(sink);
  const Logger log("com.example.app", "network");
  const std::string name = "/a.txt";
  const std::size_t count = 3;
  log.write(LogLevel::error, "%{public}s %s %ld %d %{bool}d %.1f", name, "literal", count,
            std::int8_t{-1}, true, 1.5F);
  const auto records = sink->records();
  ASSERT_EQ(records.size(), 1U);
  EXPECT_EQ(records[0].subsystem, "com.example.app");
  EXPECT_EQ(records[0].category, "network");
  EXPECT_EQ(records[0].level, LogLevel::error);
  EXPECT_EQ(records[0].format, "%{public}s %s %ld %d %{bool}d %.1f");
  const std::vector<LogArgument> expected = {
      name, std::string("literal"), std::int64_t{3}, std::int64_t{-1}, true, 1.5};
  EXPECT_EQ(records[0].arguments, expected);
  EXPECT_EQ(records[0].message(), "/a.txt <private> 3 -1 true 1.5");
}

TEST(LogTest, ReplacingASinkReturnsTheOneBefore) {
  const auto first = std::make_shared<KeepingSink>();
  const auto second = std::make_shared<KeepingSink>();
  const Logger log("s", "c");
  setLogSink(nullptr);
  EXPECT_EQ(setLogSink(first), nullptr) << "the standard sink";
  log.write(LogLevel::info, "one");
  EXPECT_EQ(setLogSink(second), first);
  log.write(LogLevel::info, "two");
  EXPECT_EQ(setLogSink(nullptr), second);
  EXPECT_EQ(setLogSink(nullptr), nullptr);
  ASSERT_EQ(first->records().size(), 1U);
  EXPECT_EQ(first->records()[0].format, "one");
  ASSERT_EQ(second->records().size(), 1U);
  EXPECT_EQ(second->records()[0].format, "two");
}

TEST(LogTest, SinkMayLogAndReplaceItself) {
  class ChattySink : public LogSink {
   public:
    explicit ChattySink(std::shared_ptr<LogSink> next) : next_(std::move(next)) {}
    void write(const LogRecord& record) override {
      setLogSink(next_);  // the process may hold the last reference to this sink
      Logger("s", "c").write(LogLevel::info, "from within");
      next_->write(record);
    }

   private:
    std::shared_ptr<LogSink> next_;
  };
  const auto last = std::make_shared<KeepingSink>();
  setLogSink(std::make_shared<ChattySink>(last));
  Logger("s", "c").write(LogLevel::info, "outer");
  ASSERT_EQ(last->records().size(), 2U);
  EXPECT_EQ(last->records()[0].format, "from within");
  EXPECT_EQ(last->records()[1].format, "outer");
}

TEST(LogTest, NothingIsLostWhileSinksAreReplaced) {
  constexpr int kThreads = 4;
  constexpr int kLines = 500;
  const std::shared_ptr<KeepingSink> sinks[] = {std::make_shared<KeepingSink>(),
                                                std::make_shared<KeepingSink>()};
  setLogSink(sinks[0]);
  std::vector<std::thread> writers;
  writers.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    writers.emplace_back([] {
      const Logger log("s", "c");
      for (int line = 0; line < kLines; ++line) log.write(LogLevel::debug, "%ld", line);
    });
  }
  for (int i = 0; i < 500; ++i) setLogSink(sinks[i % 2]);
  for (auto& writer : writers) writer.join();
  EXPECT_EQ(sinks[0]->records().size() + sinks[1]->records().size(),
            std::size_t{kThreads} * kLines);
}

TEST(LogTest, LoggingGoesOnWhileASinkIsBusy) {
  // Two threads meet inside the sink: neither could if one line were written at a time.
  class MeetingSink : public LogSink {
   public:
    void write(const LogRecord&) override {
      MutexLock lock(mutex_);
      ++inside_;
      met_.notify_all();
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
      while (inside_ < 2) {
        if (!lock.waitUntil(met_, deadline)) {
          ADD_FAILURE() << "the other thread was held back";
          return;
        }
      }
    }

   private:
    Mutex mutex_;
    std::condition_variable met_;
    int inside_ GUARDED_BY(mutex_) = 0;
  };
  setLogSink(std::make_shared<MeetingSink>());
  std::thread other([] { Logger("s", "c").write(LogLevel::info, "there"); });
  Logger("s", "c").write(LogLevel::info, "here");
  other.join();
}

}  // namespace
}  // namespace kestrune::platform
