// The remote service as the extension sees it, in the test's hands: an HttpFixture that answers listings from a table
// and hands out addresses of a storage beside it, storage of the test's own, and a configuration that leads there.
//
//     ServiceFixture service;
//     service.setListing("/Docs", {{.name = "a.txt", .size = 5}});
//     service.setContents("/Docs/a.txt", {Answer(503), Answer(200, "hello")});
//
// A folder that was not set is answered with 404. Whatever the table does not say is said with `http()`: a queued
// answer there comes before the table.
//
// Threads: every operation may be called from any thread, the constructor and destructor while no task runs.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/values/Mutex.h"
#include "tests/support/HttpFixture.h"
#include "tests/support/IsolatedStorage.h"

namespace kestrune::support {

/// One entry of a listing as it goes over the wire.
struct ListedEntry {
  std::string name;
  std::string type = "file";
  std::int64_t size = 0;
  std::string modifiedAt = "2024-05-01T12:00:00Z";
  std::optional<std::string> mimeType = std::nullopt;
};

/// The reply of a listing call. REQUIRES: all texts are valid UTF-8.
std::string listingReply(const std::vector<ListedEntry>& entries, const std::string& path = "/");

class ServiceFixture {
 public:
  /// Written into the configuration. No log line, no error and no other server may ever show it.
  static constexpr const char* kToken = "canary-5c1f0a7e-token";

  ServiceFixture();

  HttpFixture& http() { return http_; }
  const IsolatedStorage& storage() const { return storage_; }

  /// Replaces the configuration by one with this address and the token.
  void configure(const std::string& apiURL) const;
  /// Replaces the configuration by any text.
  /// Whoever reads it meanwhile has the old one or the new one.
  void writeConfiguration(const std::string& text) const;
  void writeInvalidationToken(const std::string& text) const {
    storage_.writeShared("invalidation-token.txt", text);
  }

  void setListing(const std::string& folder, const std::vector<ListedEntry>& entries);
  /// How many listing requests came, of all folders or of one.
  std::size_t listingCount() const { return http_.requestCount("GET", "/files"); }
  std::size_t listingCount(const std::string& folder) const;

  /// What the storage answers to downloads of `path`: one answer after the other, the last one for ever. Each address
  /// handed out differs from the ones before.
  void setContents(const std::string& path, std::vector<Answer> answers);
  std::size_t presignCount() const { return http_.requestCount("POST", "/files/presign-download"); }
  /// The targets of the downloads from the storage, in order.
  std::vector<std::string> downloadTargets() const;

 private:
  Answer answerListing(const ReceivedRequest& request) const;
  Answer answerPresign(const ReceivedRequest& request);

  IsolatedStorage storage_;
  mutable platform::Mutex mutex_;
  std::map<std::string, std::string> listings_ GUARDED_BY(mutex_);
  std::map<std::string, std::string> objects_ GUARDED_BY(mutex_);
  std::size_t presigned_ GUARDED_BY(mutex_) = 0;
  HttpFixture http_;  // last: its threads end before what they use goes
};

}  // namespace kestrune::support
