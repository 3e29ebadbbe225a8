// Local changes on their way through an extension to a scripted service: calls whose answers are
// written down, the service's side of every kind of upload, and what the status file shows.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "extension/test/ExtensionTesting.h"
#include "platform/values/Json.h"
#include "status/SyncStatusStore.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune {

/// What the item that the system hands in says about itself.
struct LocalItem {
  std::string identifier = "";
  std::string parent = platform::NSFileProviderRootContainerItemIdentifier;
  std::string name = "";
  std::optional<platform::UTType> type = std::nullopt;
  std::optional<std::int64_t> size = std::nullopt;
};

class HandedInItem final : public platform::NSFileProviderItem {
 public:
  explicit HandedInItem(LocalItem item) : item_(std::move(item)) {}

  platform::NSFileProviderItemIdentifier itemIdentifier() const override {
    return item_.identifier;
  }
  platform::NSFileProviderItemIdentifier parentItemIdentifier() const override {
    return item_.parent;
  }
  std::string filename() const override { return item_.name; }
  std::optional<platform::UTType> contentType() const override { return item_.type; }
  std::optional<std::int64_t> documentSize() const override { return item_.size; }

 private:
  const LocalItem item_;
};

/// The answer of a change or an action, and how things stood when it was given.
struct Changed {
  int calls = 0;
  platform::NSFileProviderItemPtr item;
  platform::NSFileProviderItemFields pending = platform::NSFileProviderItemFields::none;
  bool shouldFetchContent = false;
  platform::NSErrorPtr error;
  /// -1 before the progress was returned.
  std::int64_t progressThen = -1;
  bool onCallersThread = false;
  std::vector<SyncTransfer> transfersThen;
  /// The last line that the extension had logged.
  std::string lastLineThen;
};

/// A call that was made; its task goes on beside the test.
class ChangeCall {
 public:
  using Answer =
      std::function<void(platform::NSFileProviderItemPtr, platform::NSFileProviderItemFields, bool,
                         platform::NSErrorPtr)>;
  /// Makes the call with the handler that it is given.
  using Start = std::function<platform::NSProgressPtr(Answer)>;
  /// Fills in what only the test's surroundings know.
  using Circumstances = std::function<void(Changed&)>;

  ChangeCall(const Start& start, Circumstances circumstances)
      : state_(std::make_shared<State>()), tasks_([&] {
          auto answer = [state = state_, circumstances](auto item, auto pending, bool fetch,
                                                        auto error) {
            Changed now;
            now.item = std::move(item);
            now.pending = pending;
            now.shouldFetchContent = fetch;
            now.error = std::move(error);
            now.onCallersThread = std::this_thread::get_id() == state->caller;
            circumstances(now);
            state->answered(std::move(now));
          };
          state_->returned(start(answer));
        }) {}

  Changed answer() const { return state_->answer(); }
  platform::NSProgressPtr progress() const { return state_->progress(); }
  std::int64_t completed() const { return progress()->completedUnitCount(); }

  /// Waits until the call's task has ended, and returns its one answer.
  Changed finish() const {
    EXPECT_TRUE(tasks_.waitUntilEnded());
    const Changed changed = answer();
    EXPECT_EQ(changed.calls, 1);
    return changed;
  }
  const support::DetachedTasks& tasks() const { return tasks_; }

 private:
  struct State {
    void answered(Changed now) {
      platform::MutexLock lock(mutex);
      now.calls = changed.calls + 1;
      if (given) now.progressThen = given->completedUnitCount();
      changed = std::move(now);
    }
    void returned(platform::NSProgressPtr progressGiven) {
      platform::MutexLock lock(mutex);
      given = std::move(progressGiven);
    }
    Changed answer() const {
      platform::MutexLock lock(mutex);
      return changed;
    }
    platform::NSProgressPtr progress() const {
      platform::MutexLock lock(mutex);
      return given;
    }
    const std::thread::id caller = std::this_thread::get_id();
    mutable platform::Mutex mutex;
    Changed changed GUARDED_BY(mutex);
    platform::NSProgressPtr given GUARDED_BY(mutex);
  };
  std::shared_ptr<State> state_;
  support::DetachedTasks tasks_;
};

class ChangeTesting : public ExtensionTesting {
 protected:
  using Fields = platform::NSFileProviderItemFields;
  using Contents = std::optional<std::filesystem::path>;

  ~ChangeTesting() override { EXPECT_TRUE(transfers().empty()) << "a transfer stays registered"; }

  // Calls

  ChangeCall create(const LocalItem& item, const Contents& contents = std::nullopt) {
    return begin([&](const ChangeCall::Answer& answer) {
      return extension_->createItem(std::make_shared<HandedInItem>(item), Fields::none, contents,
                                    platform::NSFileProviderCreateItemOptions::none, {}, answer);
    });
  }
  ChangeCall modify(const LocalItem& item, Fields fields, const Contents& contents = std::nullopt) {
    return begin([&](const ChangeCall::Answer& answer) {
      return extension_->modifyItem(std::make_shared<HandedInItem>(item), {}, fields, contents,
                                    platform::NSFileProviderModifyItemOptions::none, {}, answer);
    });
  }
  ChangeCall remove(const std::string& identifier) {
    return begin([&](const ChangeCall::Answer& answer) {
      return extension_->deleteItem(identifier, {}, platform::NSFileProviderDeleteItemOptions::none,
                                    {}, done(answer));
    });
  }
  ChangeCall perform(const std::string& action, const std::vector<std::string>& items) {
    return begin([&](const ChangeCall::Answer& answer) {
      return extension_->performAction(action, items, done(answer));
    });
  }

  // The service's side

  /// Presigns "/bucket/object" under the key "k-1", takes its PUT and imports it.
  void acceptSmallFiles() {
    const platform::Json presigned = {{"uploadId", "u-1"}, {"url", objectURL()}, {"key", "k-1"}};
    on("POST", "/files/direct-presign-upload", support::Answer(200, presigned.dump()));
    on("PUT", "/bucket/object", support::Answer(200));
    on("POST", "/files/direct-import", support::Answer(200, "{}"));
  }
  /// Opens an upload, takes its parts at "/bucket/part/N", completes and imports it.
  void acceptParts() {
    on("POST", "/files/direct-multipart-init",
       support::Answer(200, R"({"uploadId":"u-1","s3UploadId":"s-1","key":"k-1"})"));
    service_.http().on("POST", "/files/direct-multipart-part-url",
                       [this](const support::ReceivedRequest& request) {
                         const auto body = platform::Json::parse(request.body);
                         const std::string path = "/bucket/part/" + body.at("partNumber").dump();
                         const platform::Json reply = {{"url", service_.http().url(path)}};
                         return support::Answer(200, reply.dump());
                       });
    for (const char* part : {"/bucket/part/1", "/bucket/part/2"})
      on("PUT", part, support::Answer(200).with("ETag", "\"e\""));
    on("POST", "/files/direct-multipart-complete", support::Answer(200, "{}"));
    on("POST", "/files/direct-multipart-abort", support::Answer(200, "{}"));
    on("POST", "/files/direct-import", support::Answer(200, "{}"));
  }
  void acceptMoves() { on("POST", "/files/move", support::Answer(200, R"({"status":"ok"})")); }
  /// Presigns "/bucket/object", takes its PUT and the word of it.
  void acceptNewContents() {
    const platform::Json presigned = {{"url", objectURL()}, {"method", "POST"}, {"path", "/other"}};
    on("POST", "/files/presign-upload", support::Answer(200, presigned.dump()));
    on("PUT", "/bucket/object", support::Answer(200));
    on("POST", "/files/presign-notify", support::Answer(200, "{}"));
  }
  void on(const std::string& method, const std::string& path, const support::Answer& answer) {
    service_.http().on(method, path, answer);
  }
  std::string objectURL() { return service_.http().url("/bucket/object?signature=s%2F1"); }

  // What happened

  /// "METHOD target", with the JSON of a POST, in the order of arrival.
  std::vector<std::string> requests() {
    std::vector<std::string> lines;
    for (const auto& request : service_.http().requests()) {
      std::string line = request.method + " " + request.target;
      if (request.method == "POST") line += " " + platform::Json::parse(request.body).dump();
      lines.push_back(std::move(line));
    }
    return lines;
  }
  support::ReceivedRequest onlyRequest(const std::string& method, const std::string& path) {
    std::vector<support::ReceivedRequest> found;
    for (auto& request : service_.http().requests()) {
      if (request.method == method && request.path() == path) found.push_back(request);
    }
    if (found.size() != 1) throw std::runtime_error(method + " " + path + " did not come once");
    return found.front();
  }

  /// The transfers in the status file now; none if there is no file.
  std::vector<SyncTransfer> transfers() const {
    SyncStatusStore::shared().drain();
    if (!std::filesystem::exists(statusFile())) return {};
    return SyncStatus::decode(support::contentsOf(statusFile())).transfers;
  }
  std::int64_t bytesTransferred() const {
    const auto running = transfers();
    return running.size() == 1 ? running.front().bytesTransferred : -1;
  }
  /// "pinned.json" without escapes; "none" if there is no such file.
  std::string pins() const {
    const auto file = service_.storage().shared() / "pinned.json";
    if (!std::filesystem::exists(file)) return "none";
    return platform::Json::parse(support::contentsOf(file)).dump();
  }
  std::filesystem::path statusFile() const {
    return service_.storage().shared() / "sync-status.json";
  }

  /// What the extension has logged since its first line, as "level: message".
  std::vector<std::string> lines() const {
    std::vector<std::string> lines;
    for (const auto& record : extensionRecords()) {
      lines.push_back(std::string(logLevelName(record.level)) + ": " + record.message());
    }
    return lines;
  }
  /// The same as they were written: the formats.
  std::vector<std::string> formats() const {
    std::vector<std::string> formats;
    for (const auto& record : extensionRecords()) formats.push_back(record.format);
    return formats;
  }
  std::vector<platform::LogRecord> extensionRecords() const {
    std::vector<platform::LogRecord> records;
    for (auto& record : log_.records()) {
      if (record.category == "extension" && !record.format.starts_with("init "))
        records.push_back(record);
    }
    return records;
  }

  /// A local file of so many bytes that takes no room on the disk.
  std::filesystem::path sparseFile(std::uint64_t bytes) const {
    auto file = directory_.write("sparse", "");
    std::filesystem::resize_file(file, bytes);
    return file;
  }
  std::filesystem::path fileWith(const std::string& contents) const {
    return directory_.write("contents", contents);
  }

  const support::TemporaryDirectory directory_;
  const std::shared_ptr<FileProviderExtension> extension_ = makeExtension();

 private:
  static platform::NSFileProviderReplicatedExtension::DoneHandler done(
      const ChangeCall::Answer& answer) {
    return [answer](platform::NSErrorPtr error) {
      answer(nullptr, Fields::none, false, std::move(error));
    };
  }
  ChangeCall begin(const ChangeCall::Start& start) const {
    return ChangeCall(start, [this](Changed& now) {
      now.transfersThen = transfers();
      const auto written = lines();
      if (!written.empty()) now.lastLineThen = written.back();
    });
  }
};

/// A success without anything left to do, with an item that was modified between `before` and now.
inline void expectNewItem(const Changed& changed, const std::string& path, platform::Date before) {
  ASSERT_EQ(changed.error, nullptr) << changed.error->localizedDescription();
  ASSERT_NE(changed.item, nullptr);
  EXPECT_EQ(changed.item->itemIdentifier(), path);
  EXPECT_EQ(changed.pending, platform::NSFileProviderItemFields::none);
  EXPECT_FALSE(changed.shouldFetchContent);
  EXPECT_EQ(changed.progressThen, 100);
  EXPECT_FALSE(changed.onCallersThread);
  EXPECT_GE(changed.item->contentModificationDate(), before);
  EXPECT_LE(changed.item->contentModificationDate(), platform::dateNow());
}

/// A failure, told when no transfer was registered any more.
inline void expectFailure(const Changed& changed, const std::string& domain, std::int64_t code) {
  ASSERT_NE(changed.error, nullptr);
  EXPECT_EQ(changed.error->domain(), domain);
  EXPECT_EQ(changed.error->code(), code) << changed.error->localizedDescription();
  EXPECT_EQ(changed.item, nullptr);
  EXPECT_EQ(changed.pending, platform::NSFileProviderItemFields::none);
  EXPECT_FALSE(changed.shouldFetchContent);
  EXPECT_TRUE(changed.transfersThen.empty());
}

}  // namespace kestrune
