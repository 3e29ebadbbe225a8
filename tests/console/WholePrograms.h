// kestrune-service over a small tree of the test's own, and the configuration that leads there: what
// the tests of the whole programs begin with.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "tests/console/ChildProgram.h"
#include "tests/support/IsolatedStorage.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune {

inline constexpr const char* kToken = "canary-91f3-token";

inline std::string randomBytes(std::size_t count, unsigned seed = 4711) {
  std::mt19937 generator(seed);
  std::string bytes(count, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(generator());
  return bytes;
}

/// A service over a tree of the test's own, and the configuration that leads there.
struct WholePrograms : testing::Test {
  WholePrograms() {
    files.write("tree/Docs/a.txt", "hello\n");
    files.write("tree/Docs/big.bin", big);
    files.write("tree/Docs/Sub/inner", "");
    files.write("tree/Docs/.DS_Store", "clutter");
    files.write("token", kToken);
    start();
    configure(files.path() / "token");
  }

  void start() {
    service.emplace("kestrune-service",
                    std::vector<std::string>{"--root", files.path() / "tree", "--staging",
                                             files.path() / "staging", "--listen", "127.0.0.1:0",
                                             "--token-file", files.path() / "token"});
    const std::string line = service->readLine().value_or("");
    address = line.substr(std::min(line.find("http://"), line.size()));
    ASSERT_THAT(address, testing::HasSubstr("http://127.0.0.1:")) << service->errors();
  }

  void configure(const std::filesystem::path& tokenFile) {
    ChildProgram program("kestrune",
                         {"configure", "--url", address, "--token-file", tokenFile, "--no-check"});
    EXPECT_EQ(program.finish(), 0) << program.errors();
  }

  std::filesystem::path tree(const std::filesystem::path& relative) const {
    return files.path() / "tree" / relative;
  }

  const std::string big = randomBytes(3 << 20U);
  support::TemporaryDirectory files;
  support::IsolatedStorage
      storage;  // after `files`, which would else lie in its temporary directory
  std::optional<ChildProgram> service;
  std::string address;
};

}  // namespace kestrune
