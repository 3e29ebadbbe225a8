// An extension in front of a scripted service, and the answers that it gave.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "extension/FileProviderExtension.h"
#include "platform/values/Mutex.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/DetachedTasks.h"
#include "tests/support/ManualTime.h"
#include "tests/support/ServiceFixture.h"

namespace kestrune {

/// The answer of `item` or `fetchContents`.
struct Answered {
  int calls = 0;
  std::optional<std::filesystem::path> url;
  platform::NSFileProviderItemPtr item;
  platform::NSErrorPtr error;
  /// How the progress stood when the handler was called; -1 before it was returned.
  std::int64_t progressThen = -1;
  bool onCallersThread = false;
};

/// Writes down one operation's answer. Threads: called from any thread, asked from the test's.
class AnswerRecorder {
 public:
  void answered(std::optional<std::filesystem::path> url, platform::NSFileProviderItemPtr item,
                platform::NSErrorPtr error) {
    platform::MutexLock lock(mutex_);
    ++answer_.calls;
    answer_.url = std::move(url);
    answer_.item = std::move(item);
    answer_.error = std::move(error);
    if (progress_) answer_.progressThen = progress_->completedUnitCount();
    answer_.onCallersThread = std::this_thread::get_id() == caller_;
  }
  void returned(platform::NSProgressPtr progress) {
    platform::MutexLock lock(mutex_);
    progress_ = std::move(progress);
  }
  Answered answer() const {
    platform::MutexLock lock(mutex_);
    return answer_;
  }
  platform::NSProgressPtr progress() const {
    platform::MutexLock lock(mutex_);
    return progress_;
  }

 private:
  const std::thread::id caller_ = std::this_thread::get_id();
  mutable platform::Mutex mutex_;
  Answered answer_ GUARDED_BY(mutex_);
  platform::NSProgressPtr progress_ GUARDED_BY(mutex_);
};

class ExtensionTesting : public testing::Test {
 protected:
  using Recorder = std::shared_ptr<AnswerRecorder>;

  std::shared_ptr<FileProviderExtension> makeExtension() {
    FileProviderExtension::Services services;
    services.sleeper = sleeper_;
    return FileProviderExtension::make(domain_, std::move(services));
  }

  static Recorder askForItem(FileProviderExtension& extension, const std::string& identifier) {
    auto recorder = std::make_shared<AnswerRecorder>();
    recorder->returned(extension.item(identifier, {}, [recorder](auto item, auto error) {
      recorder->answered(std::nullopt, item, error);
    }));
    return recorder;
  }
  static Recorder askForContents(FileProviderExtension& extension, const std::string& identifier) {
    auto recorder = std::make_shared<AnswerRecorder>();
    recorder->returned(extension.fetchContents(
        identifier, std::nullopt, {},
        [recorder](auto url, auto item, auto error) { recorder->answered(url, item, error); }));
    return recorder;
  }

  support::ServiceFixture service_;
  const support::CapturingLogSink log_;
  const platform::NSFileProviderDomainPtr domain_ =
      std::make_shared<platform::NSFileProviderDomain>("domain-7", "Kestrune");
  const std::shared_ptr<support::ManualSleeper> sleeper_ =
      std::make_shared<support::ManualSleeper>();
};

}  // namespace kestrune
