// kestrune-service as a process: its command line, its messages and its end.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "service/test/Client.h"
#include "tests/console/ChildProgram.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/Waiting.h"

namespace kestrune::service {
namespace {

namespace fs = std::filesystem;
using platform::Json;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Not;

class Process : public ::testing::Test {
 protected:
  Process() : token(files.write("token", "process-token\n")) {
    fs::create_directory(root());
    ::chmod(token.c_str(), 0600);
  }

  fs::path root() const { return files.path() / "tree"; }
  std::vector<std::string> arguments(const std::string& listen = "127.0.0.1:0") const {
    return {"--root", root(), "--listen", listen, "--token-file", token};
  }
  /// Starts and returns the line that says it is ready.
  std::string start(const std::vector<std::string>& arguments) {
    program.emplace("kestrune-service", arguments);
    const std::string line = program->readLine().value_or("");
    if (const auto colon = line.rfind(':'); colon != std::string::npos) {
      port = static_cast<std::uint16_t>(std::atoi(line.c_str() + colon + 1));
    }
    return line;
  }
  Answer call(const std::string& method, const std::string& target,
              std::optional<std::string_view> body = {}) const {
    Client client(port);
    return client.call(method, target, {{"Authorization", "Bearer process-token"}}, body);
  }
  std::string targetFor(const std::string& path) const {
    const Answer answer = call("POST", "/files/presign-upload", Json{{"path", path}}.dump());
    const std::string url = answer.json().at("url");
    return url.substr(url.find("/storage"));
  }
  /// What a start with these arguments says before it fails.
  std::string complaint(const std::vector<std::string>& arguments) {
    ChildProgram failing("kestrune-service", arguments);
    EXPECT_GT(failing.finish(), 0);
    return failing.errors();
  }

  support::TemporaryDirectory files;
  fs::path token;
  std::optional<ChildProgram> program;
  std::uint16_t port = 0;
};

TEST_F(Process, SaysOnOneLineWhereItServesAndEndsOnSIGTERM) {
  EXPECT_THAT(start(arguments()), MatchesRegex("kestrune-service: serving " + root().string() +
                                               " on http://127.0.0.1:[1-9][0-9]*"));
  EXPECT_EQ(call("GET", "/files?path=%2F").status, 200U);
  program->signal(SIGTERM);
  EXPECT_EQ(program->finish(), 0);
  EXPECT_EQ(program->errors(), "");
  EXPECT_FALSE(program->readLine().has_value());
}

TEST_F(Process, EndsOnSIGINTToo) {
  start(arguments());
  program->signal(SIGINT);
  EXPECT_EQ(program->finish(), 0);
}

TEST_F(Process, ARunningUploadIsFinishedAfterSIGTERM) {
  start(arguments());
  Client client(port);
  client.send("PUT " + targetFor("/up.bin") + " HTTP/1.1\r\nContent-Length: 3000000\r\n\r\n" +
              std::string(2'000'000, 'x'));
  const fs::path drafts = files.path() / ".tree.kestrune-staging/drafts";
  ASSERT_TRUE(support::waitUntil([&] { return !fs::is_empty(drafts); }));
  program->signal(SIGTERM);
  ASSERT_TRUE(support::waitUntil([&] {
    try {
      Client refused(port);
      return false;
    } catch (const std::runtime_error&) {
      return true;
    }
  })) << "still accepting";
  client.send(std::string(1'000'000, 'x'));
  EXPECT_EQ(client.readAnswer().status, 200U);
  EXPECT_EQ(program->finish(), 0);
  EXPECT_EQ(fs::file_size(root() / "up.bin"), 3'000'000U);
}

TEST_F(Process, KilledInAnUploadTheTreeIsWholeAndTheNextStartClearsUp) {
  files.write("tree/up.bin", "old");
  start(arguments());
  Client client(port);
  client.send("PUT " + targetFor("/up.bin") + " HTTP/1.1\r\nContent-Length: 3000000\r\n\r\n" +
              std::string(2'999'999, 'x'));
  const fs::path drafts = files.path() / ".tree.kestrune-staging/drafts";
  ASSERT_TRUE(support::waitUntil([&] { return !fs::is_empty(drafts); }));
  program->signal(SIGKILL);
  EXPECT_EQ(program->finish(), -SIGKILL);
  EXPECT_FALSE(fs::is_empty(drafts));
  EXPECT_EQ(support::contentsOf(root() / "up.bin"), "old");
  start(arguments());
  EXPECT_TRUE(fs::is_empty(drafts));
  EXPECT_EQ(support::contentsOf(root() / "up.bin"), "old");
}

TEST_F(Process, WhatOtherProgramsChangeInTheTreeIsAnnounced) {
  start(arguments());
  Client listener(port);
  listener.send("GET /events HTTP/1.1\r\nAuthorization: Bearer process-token\r\n\r\n");
  listener.readUntil(": hello\n\n");
  for (int i = 0; i < 5; ++i) {
    files.write("tree/folder/in folder/" + std::to_string(i), "text");
    const auto written = std::chrono::steady_clock::now();
    // Where nothing is announced, a sign of life comes after a quarter of a minute.
    EXPECT_THAT(listener.readUntil("\n\n"), HasSubstr("event: change"));
    EXPECT_LT(std::chrono::steady_clock::now() - written, std::chrono::seconds(2)) << i;
  }
  // Listening does not hold up the end.
  program->signal(SIGTERM);
  EXPECT_EQ(program->finish(), 0);
  EXPECT_EQ(program->errors(), "");
}

TEST_F(Process, URLsSurviveARestart) {
  files.write("tree/a.txt", "hello");
  start(arguments());
  const Answer presigned = call("POST", "/files/presign-download", R"({"path":"/a.txt"})");
  const std::string url = presigned.json().at("url");
  program->signal(SIGTERM);
  ASSERT_EQ(program->finish(), 0);
  start(arguments());
  Client client(port);
  EXPECT_EQ(client.call("GET", url.substr(url.find("/storage"))).body, "hello");
}

TEST_F(Process, EveryMistakeIsExplained) {
  const std::string missing = files.path() / "missing";
  const auto with = [&](std::size_t index, const std::string& value) {
    auto changed = arguments();
    changed[index] = value;
    return complaint(changed);
  };
  EXPECT_THAT(with(1, missing), HasSubstr("root '" + missing + "'"));
  EXPECT_THAT(with(5, missing), HasSubstr(missing));
  EXPECT_THAT(with(5, files.write("empty", " \n")), HasSubstr("is empty"));
  for (const char* listen :
       {"8080", "127.0.0.1", ":80", "127.0.0.1:x", "127.0.0.1:65536", "::1:80"}) {
    EXPECT_THAT(with(3, listen), HasSubstr("--listen")) << listen;
  }
  EXPECT_THAT(with(3, "example.org:0"), HasSubstr("example.org"));
  auto inside = arguments();
  inside.insert(inside.end(), {"--staging", root() / "staging"});
  EXPECT_THAT(complaint(inside), HasSubstr("inside the root"));
  auto publicURL = arguments();
  publicURL.insert(publicURL.end(), {"--public-url", "files.example"});
  EXPECT_THAT(complaint(publicURL), HasSubstr("--public-url"));
  start(arguments());
  EXPECT_THAT(with(3, "127.0.0.1:" + std::to_string(port)), HasSubstr("in use"));
}

TEST_F(Process, ATokenFileThatOthersCanReadIsWorthAWarning) {
  ::chmod(token.c_str(), 0644);
  start(arguments());
  EXPECT_THAT(program->errors(), HasSubstr("mode 0600"));
  EXPECT_THAT(program->errors(), Not(HasSubstr("process-token")));
}

TEST_F(Process, TheTokenIsInNoArgumentAndNoEnvironment) {
  start(arguments());
  const std::string process = "/proc/" + std::to_string(program->pid());
  for (const char* file : {"/cmdline", "/environ"}) {
    EXPECT_THAT(support::contentsOf(process + file), Not(HasSubstr("process-token")));
  }
}

TEST_F(Process, HelpTellsWhatTheOperatorMustKnow) {
  ChildProgram help("kestrune-service", {"--help"});
  std::string text;
  while (const auto line = help.readLine()) text += *line + "\n";
  EXPECT_EQ(help.finish(), 0);
  for (const char* word :
       {"--root", "--listen", "--token-file", "--staging", "--public-url", "24 hours", "SIGTERM"}) {
    EXPECT_THAT(text, HasSubstr(word));
  }
}

TEST_F(Process, ListensOnIPv6) {
  if (!fs::exists("/proc/net/if_inet6")) GTEST_SKIP() << "this machine has no IPv6";
  EXPECT_THAT(start(arguments("[::1]:0")), HasSubstr(" on http://[::1]:"));
}

}  // namespace
}  // namespace kestrune::service
