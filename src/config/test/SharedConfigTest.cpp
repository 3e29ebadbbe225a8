#include "config/SharedConfig.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>

#include "platform/values/Json.h"
#include "platform/values/NSError.h"
#include "tests/support/FileOpens.h"
#include "tests/support/IsolatedStorage.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using support::FileOpens;
using ::testing::HasSubstr;
using ::testing::Not;
using Text = std::optional<std::string>;

constexpr const char* kCanary = "canary-2b9d-token";

class SharedConfigTest : public testing::Test {
 protected:
  void write(const std::string& text) const { storage_.writeShared("config.json", text); }

  static Text token() {
    const auto token = SharedConfig::token();
    return token ? Text(token->reveal()) : std::nullopt;
  }

  void expectNotConfigured(const std::string& why) const {
    EXPECT_EQ(SharedConfig::apiURL(), std::nullopt) << why;
    EXPECT_EQ(token(), std::nullopt) << why;
  }

  const support::IsolatedStorage storage_;
};

TEST_F(SharedConfigTest, EachValueIsTheFilesOrAbsent) {
  const struct {
    std::string text;
    Text apiURL;
    Text token;
  } cases[] = {
      {R"({"apiURL":"http://h","token":"t"})", "http://h", "t"},
      {R"({"apiURL":"http://h"})", "http://h", std::nullopt},
      {R"({"token":"t"})", std::nullopt, "t"},
      {R"({})", std::nullopt, std::nullopt},
      {R"({"apiURL":null,"token":"t"})", std::nullopt, "t"},
      {R"({"apiURL":"http://h","token":null})", "http://h", std::nullopt},
      {R"({"apiURL":"","token":""})", "", ""},
      {R"({"apiURL":"http://h","token":"t","more":{"nested":[1,2,3]},"token2":7})", "http://h",
       "t"},
      {" \r\n\t{\"apiURL\" : \"http://h\",\n\"token\":\"t\" }\n\n", "http://h", "t"},
      {R"({"apiURL":"http:\/\/h","token":"\u00e9\ud83d\ude00"})", "http://h",
       "\xC3\xA9\xF0\x9F\x98\x80"},
      {R"({"apiurl":"http://h","Token":"t"})", std::nullopt, std::nullopt},
      {R"({"apiURL":"http://h/","token":"t"})", "http://h/", "t"},
      {R"({"apiURL":"not a url","token":"a\nb"})", "not a url", "a\nb"},
      {"\xEF\xBB\xBF{\"apiURL\":\"http://h\",\"token\":\"t\"}", "http://h", "t"},
      {R"({"apiURL":"first","token":"t","apiURL":"last"})", "last", "t"},
  };
  for (const auto& [text, apiURL, expectedToken] : cases) {
    write(text);
    EXPECT_EQ(SharedConfig::apiURL(), apiURL) << text;
    EXPECT_EQ(token(), expectedToken) << text;
  }
}

TEST_F(SharedConfigTest, AFileThatIsNoRecordHoldsNothing) {
  const std::string good = R"({"apiURL":"http://h","token":"t"})";
  const std::string cases[] = {
      R"({"apiURL":"http://h","token":7})",
      R"({"apiURL":7,"token":"t"})",
      R"({"apiURL":"http://h","token":["t"]})",
      R"({"apiURL":{"u":"http://h"},"token":"t"})",
      R"({"apiURL":"http://h","token":true})",
      "",
      " ",
      "null",
      "7",
      R"("http://h")",
      "[" + good + "]",
      good.substr(0, good.size() - 1),
      good + good,
      good + "x",
      "{'apiURL':'http://h','token':'t'}",
      R"({"apiURL":"http://h","token":"t",})",
      R"({"apiURL":"http://h","token":"\ud800"})",
      "{\"apiURL\":\"http://h\",\"token\":\"\xFF\"}",
      "{\"apiURL\":\"http://h\",\"token\":\"a\nb\"}",
      std::string("\0", 1) + good,
      good + std::string("\0", 1),
      std::string("\x7F\x45\x4C\x46\x00\x01\xFE\xFF", 8),
      R"({"apiURL":"http://h","token":"t","deep":)" + std::string(100'000, '[') +
          std::string(100'000, ']') + "}",
      std::string(100'000, '{'),
      R"({"apiURL":"http://h","token":"t","many":1e999})",
  };
  for (const auto& text : cases) {
    write(text);
    expectNotConfigured(text.substr(0, 60));
  }
}

TEST_F(SharedConfigTest, WhateverLiesInTheFilesPlaceIsNotConfigured) {
  expectNotConfigured("no directory at all");
  storage_.makeSharedDirectory("config.json");
  expectNotConfigured("a directory");
  storage_.makeSharedPipe("config.json");
  expectNotConfigured("a pipe that nobody writes to");
  storage_.makeSharedHugeFile("config.json", 1ULL << 40U);
  expectNotConfigured("a terabyte");
  fs::remove(storage_.shared() / "config.json");
  fs::create_symlink("nowhere", storage_.shared() / "config.json");
  expectNotConfigured("a link to nothing");
  storage_.blockShared();
  expectNotConfigured("a file in the place of the shared directory");
}

TEST_F(SharedConfigTest, EveryReadSeesThePresentFile) {
  write(R"({"apiURL":"http://one","token":"1"})");
  EXPECT_EQ(SharedConfig::apiURL(), "http://one");
  write(R"({"apiURL":"http://two","token":"2"})");
  EXPECT_EQ(token(), "2");
  EXPECT_EQ(SharedConfig::apiURL(), "http://two");
  fs::remove(SharedConfig::file());
  expectNotConfigured("removed");
}

TEST_F(SharedConfigTest, EachValueCostsOneReadOfTheFile) {
  write("{}");
  FileOpens opens(SharedConfig::file());
  SharedConfig::apiURL();
  EXPECT_EQ(opens.take(), 1U);
  SharedConfig::token();
  EXPECT_EQ(opens.take(), 1U);
}

TEST_F(SharedConfigTest, TheDirectoryIsMadeOnEveryAccess) {
  EXPECT_EQ(SharedConfig::configDir(), storage_.shared());
  EXPECT_TRUE(fs::is_directory(storage_.shared()));
  fs::remove_all(storage_.applicationSupport());
  EXPECT_EQ(SharedConfig::file(), storage_.shared() / "config.json");
  EXPECT_TRUE(fs::is_directory(storage_.shared()));
  EXPECT_FALSE(fs::exists(SharedConfig::file()));
}

TEST_F(SharedConfigTest, ADirectoryThatCannotBeMadeIsNamedAllTheSame) {
  storage_.blockShared();
  EXPECT_EQ(SharedConfig::configDir(), storage_.shared());
}

TEST_F(SharedConfigTest, OnlyWhatIsPresentIsEncoded) {
  using Payload = SharedConfig::Payload;
  const auto encoded = [](const Text& apiURL, const Text& token) {
    Payload payload;
    payload.apiURL = apiURL;
    if (token) payload.token.emplace(*token);
    return platform::decodeJson(payload.encode());
  };
  EXPECT_EQ(encoded("http://h", "t"),
            platform::Json::parse(R"({"apiURL":"http://h","token":"t"})"));
  EXPECT_EQ(encoded("http://h", std::nullopt), platform::Json::parse(R"({"apiURL":"http://h"})"));
  EXPECT_EQ(encoded(std::nullopt, ""), platform::Json::parse(R"({"token":""})"));
  EXPECT_EQ(encoded(std::nullopt, std::nullopt), platform::Json::object());

  Payload payload;
  payload.apiURL = "http://h/\xC3\xA9";
  payload.token.emplace("a\"b\\c\n");
  const Payload again = Payload::decode(payload.encode());
  EXPECT_EQ(again.apiURL, payload.apiURL);
  EXPECT_EQ(again.token->reveal(), payload.token->reveal());
}

TEST_F(SharedConfigTest, ReasonsForRefusingARecordNeverShowTheToken) {
  const std::string token = kCanary;
  const std::string cases[] = {
      "{\"apiURL\":7,\"token\":\"" + token + "\"}",
      "{\"token\":\"" + token,
      "{\"token\":\"" + token + "\"",
      "{\"token\":\"" + token + "\"}}",
      "{\"token\":\"" + token + "\xFF\"}",
      "{\"token\":\"" + token + "\\ud800\"}",
      "{\"token\":\"" + token + "\n\"}",
      "{\"token\":" + token + "}",
      "\"" + token + "\"",
      token,
  };
  for (const auto& text : cases) {
    try {
      SharedConfig::Payload::decode(text);
      ADD_FAILURE() << "decoded: " << text;
    } catch (const platform::NSError& error) {
      EXPECT_THAT(error.localizedDescription(), Not(HasSubstr(token))) << text;
      EXPECT_THAT(error.localizedDescription(), Not(HasSubstr(token.substr(0, 6)))) << text;
    }
  }
}

}  // namespace
}  // namespace kestrune
