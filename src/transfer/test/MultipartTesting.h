// One upload in parts at a time, against a store in the test's hands that writes down every step.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "platform/progress/NSProgress.h"
#include "platform/values/Json.h"
#include "platform/values/Mutex.h"
#include "tests/support/CapturingLogSink.h"
#include "tests/support/Digest.h"
#include "tests/support/RunTask.h"
#include "tests/support/ServiceFixture.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"
#include "transfer/MultipartUploader.h"

namespace kestrune {

class MultipartTesting : public testing::Test {
 protected:
  using Json = platform::Json;

  static constexpr std::int64_t kPart = MultipartUploader::kPartBytes;
  static constexpr const char* kInit = "/files/direct-multipart-init";
  static constexpr const char* kPartURL = "/files/direct-multipart-part-url";
  static constexpr const char* kComplete = "/files/direct-multipart-complete";
  static constexpr const char* kImport = "/files/direct-import";
  static constexpr const char* kAbort = "/files/direct-multipart-abort";
  static constexpr const char* kDestination = "/Videos/large file.bin";
  static constexpr const char* kKey = "uploads/k 1";
  static constexpr const char* kUploadId = "s3+77==";

  MultipartTesting() {
    const Json opened = {{"uploadId", "ours"}, {"s3UploadId", kUploadId}, {"key", kKey}};
    http().on("POST", kInit, support::Answer(200, opened.dump()));
    http().on("POST", kPartURL, [this](const support::ReceivedRequest& request) {
      return addressOf(Json::parse(request.body).at("partNumber"));
    });
    http().on("POST", kComplete, support::Answer(200, R"({"status":"ok"})"));
    http().on("POST", kImport, support::Answer(200, "imported"));
    http().on("POST", kAbort, support::Answer(200, "{}"));
    http().otherwise([this](const support::ReceivedRequest& request) {
      return request.method == "PUT" ? answerToAnyPart(request) : support::Answer(404, "no route");
    });
  }

  support::HttpFixture& http() { return service_.http(); }
  const support::HttpFixture& http() const { return http_; }

  // What the store answers

  static std::string pathOf(std::int64_t part) { return "/storage/part/" + std::to_string(part); }
  support::Answer addressOf(std::int64_t part) {
    return addressReply(http().url(pathOf(part)) +
                        "?X-Signature=a%2Fb%3D&n=" + std::to_string(part));
  }
  static support::Answer addressReply(const std::string& url) {
    return support::Answer(200, Json{{"url", url}}.dump());
  }
  static std::string etagOf(std::int64_t part) { return "\"etag-" + std::to_string(part) + "\""; }
  static support::Answer stored(std::int64_t part) {
    return support::Answer(200).with("ETag", etagOf(part));
  }
  void setPart(std::int64_t part, support::Answer answer) {
    http().on("PUT", pathOf(part), std::move(answer));
  }
  /// Part `part` is answered when the test opens the gate.
  support::Gate holdPart(std::int64_t part) {
    support::Gate gate;
    setPart(part, stored(part).held(gate));
    return gate;
  }
  /// Parts without an answer of their own are answered one by one, as the gate lets them.
  support::Gate holdAllParts() {
    platform::MutexLock lock(mutex_);
    partsGate_ = std::make_unique<support::Gate>();
    return *partsGate_;
  }

  // Files

  std::filesystem::path fileWith(std::string_view contents) const {
    return directory_.write("source.bin", contents);
  }
  /// So many zeros that take no room on the disk.
  std::filesystem::path fileOf(std::int64_t bytes) const {
    auto file = fileWith("");
    std::filesystem::resize_file(file, static_cast<std::uintmax_t>(bytes));
    return file;
  }

  // Uploads

  platform::Task<void> upload(std::filesystem::path file, std::int64_t size) {
    return MultipartUploader::upload(std::move(file), size, kDestination, progress_, session_);
  }
  support::RunningTask<void> start(std::filesystem::path file, std::int64_t size) {
    return support::startTask(upload(std::move(file), size));
  }
  /// Uploads so many zeros.
  support::RunningTask<void> start(std::int64_t size) { return start(fileOf(size), size); }
  void run(std::int64_t size) { support::runTask(upload(fileOf(size), size)); }
  platform::NSErrorPtr failureOf(std::filesystem::path file, std::int64_t size) {
    return support::failureOf(upload(std::move(file), size));
  }
  platform::NSErrorPtr failureOf(std::int64_t size) { return failureOf(fileOf(size), size); }

  // What has happened

  /// The requests in the order of their arrival: "init", "address 1", "part 1", "complete", …
  std::vector<std::string> steps() const {
    std::vector<std::string> steps;
    for (const auto& request : http().requests()) steps.push_back(nameOf(request));
    return steps;
  }
  bool hasStarted(std::int64_t part) const { return http().requestCount("PUT", pathOf(part)) > 0; }
  [[nodiscard]] bool waitForPart(std::int64_t part) const {
    return support::waitUntil([&] { return hasStarted(part); });
  }
  std::size_t count(const char* servicePath) const {
    return http().requestCount("POST", servicePath);
  }
  std::size_t partsAsked() const { return count(kPartURL); }
  std::size_t partsStarted() const {
    std::size_t parts = 0;
    for (std::int64_t part = 1; part <= kMostParts; ++part) parts += hasStarted(part) ? 1 : 0;
    return parts;
  }
  [[nodiscard]] bool waitForParts(std::size_t parts) const {
    return support::waitUntil([&] { return partsStarted() >= parts; });
  }
  /// The request that carried the part. Throws if there was none.
  support::ReceivedRequest requestOf(std::int64_t part) const {
    return lastRequest("PUT", pathOf(part));
  }
  Json bodyOf(const char* servicePath) const {
    return Json::parse(lastRequest("POST", servicePath).body);
  }

  support::ServiceFixture service_;
  const support::CapturingLogSink log_;
  const support::TemporaryDirectory directory_;
  const std::shared_ptr<platform::NSProgress> progress_ =
      std::make_shared<platform::NSProgress>(100);
  std::shared_ptr<platform::URLSession> session_ =
      std::make_shared<platform::URLSession>(wideSession());

 private:
  static constexpr std::int64_t kMostParts = 24;

  // More connections than parts, so that the uploader's own bound is what bounds.
  static platform::URLSessionConfiguration wideSession() {
    platform::URLSessionConfiguration configuration;
    configuration.httpMaximumConnectionsPerHost = 64;
    return configuration;
  }

  support::Answer answerToAnyPart(const support::ReceivedRequest& request) const {
    const auto path = request.path();
    const support::Answer answer = stored(std::stoll(path.substr(path.rfind('/') + 1)));
    platform::MutexLock lock(mutex_);
    return partsGate_ ? answer.held(*partsGate_) : answer;
  }

  static std::string nameOf(const support::ReceivedRequest& request) {
    const std::string path = request.path();
    if (request.method == "PUT") return "part " + path.substr(path.rfind('/') + 1);
    if (path == kPartURL) return "address " + Json::parse(request.body).at("partNumber").dump();
    if (path == kInit) return "init";
    if (path == kComplete) return "complete";
    if (path == kImport) return "import";
    if (path == kAbort) return "abort";
    return request.method + " " + request.target;
  }

  support::ReceivedRequest lastRequest(std::string_view method, std::string_view path) const {
    std::vector<support::ReceivedRequest> all = http().requests();
    for (auto request = all.rbegin(); request != all.rend(); ++request) {
      if (request->method == method && request->path() == path) return *request;
    }
    throw std::runtime_error("no request to '" + std::string(path) + "'");
  }

  mutable platform::Mutex mutex_;
  std::unique_ptr<support::Gate> partsGate_ GUARDED_BY(mutex_);
  const support::HttpFixture& http_ = service_.http();
};

/// Writes down each value that a progress takes.
class ProgressValues {
 public:
  explicit ProgressValues(platform::NSProgress& progress)
      : observation_(progress.observe([this](const platform::NSProgress::Snapshot& now) {
          platform::MutexLock lock(mutex_);
          values_.push_back(now.completedUnitCount);
        })) {}
  std::vector<std::int64_t> taken() const {
    platform::MutexLock lock(mutex_);
    return values_;
  }

 private:
  mutable platform::Mutex mutex_;
  std::vector<std::int64_t> values_ GUARDED_BY(mutex_);
  platform::NSProgress::Observation observation_;
};

}  // namespace kestrune
