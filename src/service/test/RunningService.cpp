#include "service/test/RunningService.h"

#include <fcntl.h>
#include <fmt/format.h>

#include <random>
#include <stdexcept>

namespace kestrune::service {

namespace fs = std::filesystem;

RunningService::RunningService(const std::function<void(Options&)>& change)
    : root_(files_.path() / "tree") {
  fs::create_directory(root_);
  options_.root = root_;
  options_.staging = files_.path() / "staging";
  options_.durability = platform::Durability::atomic;
  options_.threads = 2;
  if (change) change(options_);
  service_.emplace(options_, platform::Secret(kToken));
  server_.emplace(options_, *service_);
  server_->start();
}

fs::path RunningService::write(const fs::path& relative, std::string_view contents) const {
  return files_.write(fs::path("tree") / relative, contents);
}

void RunningService::makeFiles(const fs::path& folder, int count) const {
  fs::create_directories(root_ / folder);
  const FileDescriptor opened(::open((root_ / folder).c_str(), O_RDONLY | O_DIRECTORY));
  for (int i = 0; i < count; ++i) {
    const std::string name = fmt::format("file {}.pdf", i);
    const FileDescriptor file(
        ::openat(opened.get(), name.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600));
    if (!file) throw std::runtime_error("a file cannot be made");
  }
}

std::string RunningService::contents(const fs::path& relative) const {
  return support::contentsOf(root_ / relative);
}

std::size_t RunningService::stagedCount() const {
  std::size_t count = 0;
  for (const char* folder : {"drafts", "objects", "trash"}) {
    for (const auto& entry : fs::directory_iterator(staging() / folder))
      count += entry.exists() ? 1 : 0;
  }
  return count;
}

Answer RunningService::call(const std::string& method, const std::string& target,
                            std::optional<std::string_view> body) const {
  Client client(port());
  return client.call(method, target, {{"Authorization", std::string("Bearer ") + kToken}}, body);
}

Answer RunningService::post(const std::string& endpoint, const platform::Json& body) const {
  return call("POST", "/files/" + endpoint, body.dump());
}

std::string RunningService::presigned(const std::string& endpoint,
                                      const platform::Json& body) const {
  const Answer answer = post(endpoint, body);
  if (answer.status != 200) throw std::runtime_error(endpoint + ": " + answer.body);
  return targetOf(answer.json().at("url"));
}

std::string RunningService::targetOf(const std::string& url) const {
  const std::string base = fmt::format("http://127.0.0.1:{}", port());
  if (!url.starts_with(base))
    throw std::runtime_error("the URL is not below the service's own address");
  return url.substr(base.size());
}

Answer RunningService::storage(const std::string& method, const std::string& target,
                               const Client::Fields& fields,
                               std::optional<std::string_view> body) const {
  Client client(port());
  return client.call(method, target, fields, body);
}

std::string patternBytes(std::size_t count, unsigned seed) {
  std::minstd_rand random(seed + 1);
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() >> 7U);
  return bytes;
}

}  // namespace kestrune::service
