// A service over a temporary tree, on a free port of 127.0.0.1, in the test's own process.
//
// Threads: one, besides the service's own.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "service/Options.h"
#include "service/Server.h"
#include "service/Service.h"
#include "service/test/Client.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::service {

class RunningService {
 public:
  static constexpr const char* kToken = "a-token-for-tests";

  /// `change` may alter the options before the start.
  explicit RunningService(const std::function<void(Options&)>& change = {});

  std::uint16_t port() const { return server_->port(); }
  /// A file or folder of the tree, by its path relative to the root.
  std::filesystem::path inTree(const std::filesystem::path& relative) const {
    return root_ / relative;
  }
  std::filesystem::path write(const std::filesystem::path& relative,
                              std::string_view contents) const;
  /// Makes a folder of the tree with `count` empty files "file 0.pdf" and so on.
  void makeFiles(const std::filesystem::path& folder, int count) const;
  std::string contents(const std::filesystem::path& relative) const;
  std::filesystem::path staging() const { return files_.path() / "staging"; }
  /// How many files and folders lie in the staging directory's folders.
  std::size_t stagedCount() const;

  /// One request with the token, on a connection of its own.
  Answer call(const std::string& method, const std::string& target,
              std::optional<std::string_view> body = std::nullopt) const;
  Answer list(const std::string& encodedPath) const {
    return call("GET", "/files?path=" + encodedPath);
  }
  Answer remove(const std::string& encodedPath) const {
    return call("DELETE", "/files?path=" + encodedPath);
  }
  /// POST below "/files/".
  Answer post(const std::string& endpoint, const platform::Json& body) const;
  /// The target (path and query) of the URL that a presigning endpoint gives for `body`.
  std::string presigned(const std::string& endpoint, const platform::Json& body) const;
  /// The same of a URL.
  std::string targetOf(const std::string& url) const;
  /// A request without the token, on a connection of its own.
  Answer storage(const std::string& method, const std::string& target,
                 const Client::Fields& fields = {},
                 std::optional<std::string_view> body = std::nullopt) const;

  Server& server() { return *server_; }

 private:
  support::TemporaryDirectory files_;
  std::filesystem::path root_;
  Options options_;
  std::optional<Service> service_;
  std::optional<Server> server_;
};

/// `count` bytes that differ from seed to seed and do not repeat soon.
std::string patternBytes(std::size_t count, unsigned seed);

}  // namespace kestrune::service
