#include "companion/configuration/ConfigureCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>
#include <utility>
#include <vector>

#include "companion/configuration/CommandError.h"
#include "config/SharedConfig.h"
#include "platform/values/Json.h"
#include "tests/support/HttpFixture.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/ServiceFixture.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune {
namespace {

using support::contentsOf;
using testing::HasSubstr;
using testing::Not;
namespace fs = std::filesystem;

struct Configure : testing::Test {
  support::TemporaryDirectory home;
  support::ScopedEnvironment dataHome{"XDG_DATA_HOME", home.path() / "data"};
  fs::path file = home.path() / "data/Kestrune/config.json";
  std::istringstream input;

  std::string run(const std::string& url, const std::string& tokenFile) {
    return configure({.url = url, .tokenFile = tokenFile}, input);
  }

  std::string failure(const std::string& url, const std::string& tokenFile) {
    try {
      run(url, tokenFile);
    } catch (const CommandError& error) {
      return error.what();
    }
    ADD_FAILURE() << "no error";
    return "";
  }
};

mode_t modeOf(const fs::path& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777U;
}

TEST_F(Configure, WritesWhatTheExtensionReads) {
  const auto token = home.write("token", "  s3cret-Token/+=\n");
  const std::string told = run("https://files.example.org:8443/api/", token);
  EXPECT_EQ(SharedConfig::apiURL(), "https://files.example.org:8443/api");
  EXPECT_EQ(SharedConfig::token()->reveal(), "s3cret-Token/+=");
  EXPECT_EQ(modeOf(file), 0600U);
  EXPECT_EQ(modeOf(file.parent_path()), 0700U);
  EXPECT_THAT(told, HasSubstr("https://files.example.org:8443/api in '" + file.string() + "'"));
  EXPECT_THAT(told, Not(HasSubstr("s3cret")));
}

TEST_F(Configure, TakesTheTokenFromStandardInput) {
  input.str("from-input\r\n");
  run("http://127.0.0.1:80", "-");
  EXPECT_EQ(SharedConfig::token()->reveal(), "from-input");
}

TEST_F(Configure, ReplacesALinkInsteadOfFollowingIt) {
  const auto elsewhere = home.write("elsewhere.json", "untouched");
  fs::create_directories(file.parent_path());
  fs::create_symlink(elsewhere, file);
  run("http://h", home.write("token", "t"));
  EXPECT_FALSE(fs::is_symlink(file));
  EXPECT_EQ(contentsOf(elsewhere), "untouched");
}

TEST_F(Configure, ClosesADirectoryThatOthersMayUse) {
  fs::create_directories(file.parent_path());
  fs::permissions(file.parent_path(), static_cast<fs::perms>(0775));
  run("http://h", home.write("token", "t"));
  EXPECT_EQ(modeOf(file.parent_path()), 0700U);
}

TEST_F(Configure, RefusesAddressesThatAreNone) {
  const auto token = home.write("token", "t");
  for (const std::string url :
       {"", "files.example.org", "ftp://h", "file:///etc", "http://", "http:///x",
        "https:", "/files", "http://h h", "http://h/?a=b", "http://h/#x", "http://user:s3cret@h/",
        "http://user:s3cret@h?q", "user:s3cret@h", "http://h\n", "javascript:alert(1)"}) {
    const std::string message = failure(url, token);
    EXPECT_THAT(message, Not(HasSubstr("s3cret"))) << url;
    EXPECT_THAT(message, Not(HasSubstr("\n"))) << url;
  }
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(Configure, RefusesTokensThatCannotBeSentAndDoesNotShowThem) {
  const std::vector<std::pair<std::string, std::string>> table = {
      {"", "is empty"},
      {" \n\t", "is empty"},
      {"hidden two", "is no token"},
      {"hidden\r\nX-Header: 1", "is no token"},
      {"hiddén", "is no token"},
      {"hidden\x7F", "is no token"}};
  for (const auto& [contents, reason] : table) {
    const std::string message = failure("http://h", home.write("token", contents));
    EXPECT_THAT(message, HasSubstr(reason));
    EXPECT_THAT(message, Not(HasSubstr("hidd")));
  }
  input.str(std::string(20000, 'x'));
  EXPECT_THAT(failure("http://h", "-"), HasSubstr("too long"));
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(Configure, SaysWhichTokenFileCannotBeRead) {
  const auto missing = home.path() / "missing";
  EXPECT_THAT(failure("http://h", missing), HasSubstr(missing.string()));
  EXPECT_THAT(failure("http://h", home.path()), HasSubstr(home.path().string()));
}

TEST_F(Configure, LeavesTheOldConfigurationWhenItCannotWrite) {
  run("http://old", home.write("token", "old"));
  const support::ScopedEnvironment elsewhere("XDG_DATA_HOME", home.write("file", "") / "below");
  EXPECT_THAT(failure("http://new", home.write("token", "new")), HasSubstr("file/below/Kestrune"));
  EXPECT_THAT(contentsOf(file), HasSubstr("old"));
}

TEST_F(Configure, AFolderInThePlaceOfTheFileIsReported) {
  fs::create_directories(file / "sub");
  EXPECT_THAT(failure("http://h", home.write("token", "t")), HasSubstr(file.string()));
}

TEST_F(Configure, ChecksBeforeItWrites) {
  support::HttpFixture server;
  server.next("GET", "/files", support::Answer(401));
  server.on("GET", "/files", support::Answer(200, support::listingReply({})));
  ConfigureOptions options;
  options.url = server.origin();
  options.typedToken = "typed-token";
  options.checks = true;
  try {
    configure(options, input);
    ADD_FAILURE() << "no error";
  } catch (const CommandError& error) {
    EXPECT_THAT(error.what(), HasSubstr("does not accept the token (HTTP 401)"));
    EXPECT_THAT(error.what(), HasSubstr("Nothing was written; --no-check"));
    EXPECT_THAT(error.what(), Not(HasSubstr("typed")));
  }
  EXPECT_FALSE(fs::exists(file));
  EXPECT_THAT(configure(options, input), HasSubstr("the service accepts the token"));
  EXPECT_EQ(SharedConfig::token()->reveal(), "typed-token");
  EXPECT_EQ(server.request(1).header("authorization"), "Bearer typed-token");
}

TEST_F(Configure, TellsProgramsWhatItWrote) {
  ConfigureOptions options;
  options.url = "http://h/";
  options.tokenFile = home.write("token", "s3cret");
  options.asJson = true;
  EXPECT_EQ(platform::decodeJson(configure(options, input)),
            (platform::Json{{"apiURL", "http://h"}, {"file", file.string()}, {"checked", false}}));
}

}  // namespace
}  // namespace kestrune
