#include "tests/support/ServiceFixture.h"

#include <filesystem>
#include <utility>

#include "platform/values/Json.h"

namespace kestrune::support {

using platform::Json;
using platform::MutexLock;

namespace {

// By hand, so that the client's encoder is not judged by a decoder from the same house.
std::string percentDecoded(std::string_view text) {
  std::string decoded;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '%' && i + 2 < text.size()) {
      decoded += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
      i += 2;
    } else {
      decoded += text[i];
    }
  }
  return decoded;
}

std::string listedFolder(const ReceivedRequest& request) {
  static constexpr std::string_view kBeginning = "/files?path=";
  if (!request.target.starts_with(kBeginning)) return "";
  return percentDecoded(std::string_view(request.target).substr(kBeginning.size()));
}

}  // namespace

std::string listingReply(const std::vector<ListedEntry>& entries, const std::string& path) {
  Json records = Json::array();
  for (const ListedEntry& entry : entries) {
    Json record = {{"name", entry.name},
                   {"type", entry.type},
                   {"size", entry.size},
                   {"modified_at", entry.modifiedAt}};
    if (entry.mimeType) record["mime_type"] = *entry.mimeType;
    records.push_back(std::move(record));
  }
  return Json{{"entries", std::move(records)}, {"path", path}}.dump();
}

ServiceFixture::ServiceFixture() {
  http_.on("GET", "/files",
           [this](const ReceivedRequest& request) { return answerListing(request); });
  http_.on("POST", "/files/presign-download",
           [this](const ReceivedRequest& request) { return answerPresign(request); });
  configure(http_.origin());
}

void ServiceFixture::configure(const std::string& apiURL) const {
  writeConfiguration(Json{{"apiURL", apiURL}, {"token", kToken}}.dump());
}

void ServiceFixture::writeConfiguration(const std::string& text) const {
  const auto written = storage_.writeShared("config.json.new", text);
  std::filesystem::rename(written, written.parent_path() / "config.json");
}

void ServiceFixture::setListing(const std::string& folder,
                                const std::vector<ListedEntry>& entries) {
  MutexLock lock(mutex_);
  listings_[folder] = listingReply(entries, folder);
}

std::size_t ServiceFixture::listingCount(const std::string& folder) const {
  std::size_t count = 0;
  for (const ReceivedRequest& request : http_.requests()) {
    if (request.method == "GET" && listedFolder(request) == folder) ++count;
  }
  return count;
}

void ServiceFixture::setContents(const std::string& path, std::vector<Answer> answers) {
  std::string object;
  {
    MutexLock lock(mutex_);
    object = "/storage/" + std::to_string(objects_.size());
    objects_[path] = object;
  }
  http_.on("GET", object, std::move(answers));
}

std::vector<std::string> ServiceFixture::downloadTargets() const {
  std::vector<std::string> targets;
  for (const ReceivedRequest& request : http_.requests()) {
    if (request.target.starts_with("/storage/")) targets.push_back(request.target);
  }
  return targets;
}

Answer ServiceFixture::answerListing(const ReceivedRequest& request) const {
  MutexLock lock(mutex_);
  const auto found = listings_.find(listedFolder(request));
  return found == listings_.end() ? Answer(404, "no such folder") : Answer(200, found->second);
}

Answer ServiceFixture::answerPresign(const ReceivedRequest& request) {
  const std::string path = Json::parse(request.body).at("path");
  MutexLock lock(mutex_);
  const auto object = objects_.find(path);
  if (object == objects_.end()) return Answer(404, "no such file");
  const std::string url = http_.url(object->second) + "?signature=" + std::to_string(++presigned_);
  return Answer(200, Json{{"url", url}, {"method", "GET"}, {"path", path}}.dump());
}

}  // namespace kestrune::support
