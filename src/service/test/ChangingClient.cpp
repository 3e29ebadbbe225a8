#include "service/test/ChangingClient.h"

#include <fmt/format.h>

#include <exception>
#include <stdexcept>
#include <utility>

#include "platform/values/Json.h"
#include "service/Signing.h"

namespace kestrune::service {
namespace {

using platform::Json;

/// More would make reading the whole tree after each kill the longest part of the test.
constexpr std::size_t kMostItems = 40;
constexpr const char* kShared = "/shared";

std::string storageTarget(const Json& answer) {
  const std::string url = answer.at("url");
  return url.substr(url.find("/storage/"));
}

std::string removal(const std::string& path) { return "/files?path=" + percentEncodePath(path); }

}  // namespace

const char* nameOf(ChangeKind kind) {
  switch (kind) {
    case ChangeKind::put:
      return "upload of a new file";
    case ChangeKind::replace:
      return "upload that replaces";
    case ChangeKind::putObject:
      return "direct upload";
    case ChangeKind::complete:
      return "completion of parts";
    case ChangeKind::import:
      return "import";
    case ChangeKind::moveFile:
      return "move of a file";
    case ChangeKind::moveFolder:
      return "move of a folder";
    case ChangeKind::makeFolder:
      return "new folder";
    case ChangeKind::removeFile:
      return "removal of a file";
    case ChangeKind::removeFolder:
      return "removal of a folder";
  }
  return "";
}

ChangingClient::ChangingClient(int number, unsigned seed)
    : number_(number), folder_(fmt::format("/client {}", number)), random_(seed) {
  state_.tree[folder_] = nullptr;
}

void ChangingClient::run(Surroundings& surroundings) {
  surroundings_ = &surroundings;
  try {
    client_.emplace(surroundings.port);
    while (!surroundings.failed) changeAtRandom();
  } catch (const std::exception& error) {
    // The kill is the only thing that may end a connection.
    if (!surroundings.killed) {
      failure_ += fmt::format("client {}: {}\n", number_, error.what());
      surroundings.failed = true;
    }
  }
  client_.reset();
}

std::optional<ChangingClient::Interrupted> ChangingClient::settle(StoreState& disk) {
  StoreState mine;
  for (auto item = disk.tree.begin(); item != disk.tree.end();) {
    const auto next = std::next(item);
    if (isMine(item->first)) mine.tree.insert(disk.tree.extract(item));
    item = next;
  }
  const auto takeObjects = [&](const StoreState& named) {
    for (const auto& [key, contents] : named.objects)
      mine.objects.insert(disk.objects.extract(key));
  };
  takeObjects(state_);
  if (open_) takeObjects(open_->after);

  std::optional<Interrupted> interrupted;
  const std::string fromBefore = mine.differenceFrom(state_);
  const std::string fromAfter = open_ ? mine.differenceFrom(open_->after) : "-";
  if (!fromBefore.empty() && !fromAfter.empty()) {
    failure_ += fmt::format("client {}: not as before\n{}", number_, fromBefore);
    if (open_) failure_ += fmt::format(" nor after: {}\n{}", nameOf(open_->kind), fromAfter);
  }
  if (open_ && open_->begunBeforeKill) interrupted = {open_->kind, fromAfter.empty()};
  state_ = std::move(mine);
  open_.reset();
  return interrupted;
}

void ChangingClient::changeAtRandom() {
  // What a kill left behind as a complete upload can still be imported.
  if (!state_.objects.empty()) {
    const std::string key = state_.objects.begin()->first;
    return import(key, newPath(someParent()));
  }
  if (state_.tree.size() > kMostItems) return remove(oneIn(2));
  switch (below(8)) {
    case 0:
    case 1:
      return put();
    case 2:
    case 3:
      return upload();
    case 4:
      return makeFolder();
    case 5:
      return move(false);
    case 6:
      return move(true);
    default:
      return remove(oneIn(2));
  }
}

void ChangingClient::put() {
  const std::optional<std::string> old = oneIn(2) ? someItem(false) : std::nullopt;
  const std::string path = old ? *old : newPath(someParent());
  const Json presigned = post("presign-upload", {{"path", path}});
  StoreState after = state_;
  after.tree[path] = newContents();
  const Contents contents = after.tree[path];
  attempt(old ? ChangeKind::replace : ChangeKind::put, std::move(after), "PUT",
          storageTarget(presigned), *contents);
}

void ChangingClient::upload() {
  const std::optional<std::string> old = oneIn(3) ? someItem(false) : std::nullopt;
  const std::string path = old ? *old : newPath(someParent());
  const Contents contents = newContents();
  import(oneIn(2) ? uploadObject(path, contents) : uploadParts(path, contents), path);
}

std::string ChangingClient::uploadObject(const std::string& path, const Contents& contents) {
  const Json presigned = post("direct-presign-upload", {{"path", path}});
  std::string key = presigned.at("key");
  StoreState after = state_;
  after.objects[key] = contents;
  attempt(ChangeKind::putObject, std::move(after), "PUT", storageTarget(presigned), *contents);
  return key;
}

std::string ChangingClient::uploadParts(const std::string& path, const Contents& contents) {
  const Json upload = post("direct-multipart-init", {{"path", path}});
  std::string key = upload.at("key");
  Json call{{"key", key}, {"s3UploadId", upload.at("s3UploadId")}};
  Json parts = Json::array();
  const std::size_t length = contents->size() / 2 + 1;
  for (int number = 1; number <= 2; ++number) {
    call["partNumber"] = number;
    const Json presigned = post("direct-multipart-part-url", call);
    const std::size_t offset = static_cast<std::size_t>(number - 1) * length;
    const Answer stored = ask("PUT", storageTarget(presigned), contents->substr(offset, length));
    parts.push_back({{"PartNumber", number}, {"Etag", stored.field("etag")}});
  }
  call.erase("partNumber");
  call["parts"] = std::move(parts);
  StoreState after = state_;
  after.objects[key] = contents;
  attempt(ChangeKind::complete, std::move(after), "POST", "/files/direct-multipart-complete",
          call.dump());
  return key;
}

void ChangingClient::import(const std::string& key, const std::string& path) {
  StoreState after = state_;
  after.import(key, path);
  attempt(ChangeKind::import, std::move(after), "POST", "/files/direct-import",
          Json{{"key", key}, {"path", path}}.dump());
}

void ChangingClient::makeFolder() {
  const std::string path = newPath(someParent());
  StoreState after = state_;
  after.tree[path] = nullptr;
  attempt(ChangeKind::makeFolder, std::move(after), "POST", "/files/mkdir",
          Json{{"path", path}}.dump());
}

void ChangingClient::move(bool folder) {
  const std::optional<std::string> source = someItem(folder);
  if (!source) return;
  const std::string destination = newPath(someParent(*source));
  StoreState after = state_;
  after.move(*source, destination);
  attempt(folder ? ChangeKind::moveFolder : ChangeKind::moveFile, std::move(after), "POST",
          "/files/move", Json{{"src", *source}, {"dst", destination}}.dump());
}

void ChangingClient::remove(bool folder) {
  const std::optional<std::string> path = someItem(folder);
  if (!path) return;
  StoreState after = state_;
  after.remove(*path);
  attempt(folder ? ChangeKind::removeFolder : ChangeKind::removeFile, std::move(after), "DELETE",
          removal(*path), "");
}

Answer ChangingClient::attempt(ChangeKind kind, StoreState after, const std::string& method,
                               const std::string& target, const std::string& body) {
  open_ = OpenChange{kind, std::move(after), !surroundings_->killed};
  Answer answer = ask(method, target, body);
  state_ = std::move(open_->after);
  open_.reset();
  ++surroundings_->confirmed;
  return answer;
}

Answer ChangingClient::ask(const std::string& method, const std::string& target,
                           const std::string& body) {
  Answer answer =
      client_->call(method, target, {{"Authorization", "Bearer " + surroundings_->token}}, body);
  if (answer.status != 200) {
    // Also when the kill is on its way: an answer that came is an answer.
    surroundings_->failed = true;
    failure_ += fmt::format("client {}: {} {}: {} {}\n", number_, method, target, answer.status,
                            answer.body);
    throw std::runtime_error("refused");
  }
  return answer;
}

Json ChangingClient::post(const std::string& endpoint, const Json& body) {
  return ask("POST", "/files/" + endpoint, body.dump()).json();
}

bool ChangingClient::isMine(const std::string& path) const {
  return isWithin(path, folder_) || path.starts_with(fmt::format("{}/{}-", kShared, number_));
}

int ChangingClient::below(int bound) {
  return std::uniform_int_distribution<int>(0, bound - 1)(random_);
}

Contents ChangingClient::newContents() {
  // Small ones arrive at the disk in one go; large ones grow there and have parts of full length.
  constexpr int kLargest = 3 << 20;
  constexpr int kUsual = 20'000;
  std::string text = fmt::format("[{} of client {}] ", ++named_, number_);
  const auto size = static_cast<std::size_t>(oneIn(6) ? below(kLargest) : below(kUsual));
  while (text.size() < size) text += text.substr(0, size - text.size());
  return std::make_shared<const std::string>(std::move(text));
}

std::string ChangingClient::newPath(const std::string& parent) {
  if (parent == kShared) return fmt::format("{}/{}-{}", kShared, number_, ++named_);
  return fmt::format("{}/{}", parent, ++named_);
}

std::string ChangingClient::someParent(const std::string& folder) {
  std::vector<std::string> parents{kShared};
  for (const auto& [path, contents] : state_.tree) {
    if (!contents && (folder.empty() || !isWithin(path, folder))) parents.push_back(path);
  }
  return parents[static_cast<std::size_t>(below(static_cast<int>(parents.size())))];
}

std::optional<std::string> ChangingClient::someItem(bool folder) {
  std::vector<std::string> items;
  for (const auto& [path, contents] : state_.tree) {
    if (path != folder_ && (contents == nullptr) == folder) items.push_back(path);
  }
  if (items.empty()) return std::nullopt;
  return items[static_cast<std::size_t>(below(static_cast<int>(items.size())))];
}

}  // namespace kestrune::service
