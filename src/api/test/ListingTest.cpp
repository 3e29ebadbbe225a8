#include "api/Listing.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "platform/values/Json.h"
#include "platform/values/NSError.h"

namespace kestrune {
namespace {

using platform::Date;
using platform::Json;

Date date(const char* text) { return *platform::parseISO8601WithFraction(text); }

Json entry() {
  return {{"name", "a.txt"},
          {"type", "file"},
          {"size", 5},
          {"modified_at", "2024-05-01T12:30:45Z"},
          {"mime_type", "text/plain"}};
}

std::string listing(const std::string& entries) {
  return "{\"entries\":[" + entries + "],\"path\":\"/\"}";
}

/// The one entry of a listing whose field `key` is `rawValue`.
RemoteEntry decodeWith(const std::string& key, const std::string& rawValue) {
  Json record = entry();
  record.erase(key);
  std::string text = record.dump();
  text.insert(1, "\"" + key + "\":" + rawValue + ",");
  return decodeListing(listing(text)).at(0);
}

void expectRefused(const std::string& reply) {
  EXPECT_THROW(decodeListing(reply), platform::NSCocoaError) << reply.substr(0, 200);
}

TEST(Listing, EntriesKeepTheirFieldsAndTheServicesOrder) {
  const auto entries = decodeListing(
      R"({"path":"/Docs","entries":[
        {"name":"z","type":"directory","size":0,"modified_at":"2024-05-01T12:30:45.123Z"},
        {"name":"a","type":"file","size":7,"modified_at":"2024-05-01T12:30:45Z","mime_type":"x/y"},
        {"name":"z","type":"Directory","size":-1,"modified_at":"2024-05-01T12:30:45+02:00"}]})");
  ASSERT_EQ(entries.size(), 3U);
  EXPECT_EQ(entries[0], (RemoteEntry{"z", "directory", 0, date("2024-05-01T12:30:45.123Z"), {}}));
  EXPECT_EQ(entries[1], (RemoteEntry{"a", "file", 7, date("2024-05-01T12:30:45.0Z"), "x/y"}));
  EXPECT_EQ(entries[2], (RemoteEntry{"z", "Directory", -1, date("2024-05-01T10:30:45.0Z"), {}}));
}

TEST(Listing, AnEmptyFolderIsAListing) { EXPECT_TRUE(decodeListing(listing("")).empty()); }

TEST(Listing, UnknownKeysAreIgnored) {
  EXPECT_EQ(decodeWith("etag", "{\"deep\":[null]}").name, "a.txt");
  EXPECT_TRUE(decodeListing(R"({"more":1,"entries":[],"path":"/","next":null})").empty());
}

TEST(Listing, EachRequiredFieldMustBeThereWithItsType) {
  for (const char* key : {"name", "type", "size", "modified_at"}) {
    Json without = entry();
    without.erase(key);
    expectRefused(listing(without.dump()));
    for (const char* wrong : {"null", "true", "[]", "{}"}) {
      EXPECT_THROW(decodeWith(key, wrong), platform::NSCocoaError) << key << wrong;
    }
  }
  for (const char* key : {"name", "type", "modified_at"})
    EXPECT_THROW(decodeWith(key, "5"), platform::NSCocoaError) << key;
  EXPECT_THROW(decodeWith("size", "\"5\""), platform::NSCocoaError);
}

TEST(Listing, OneBadEntryFailsTheWhole) {
  expectRefused(listing(entry().dump() + ",5," + entry().dump()));
  expectRefused(listing(entry().dump() + ",{}"));
}

TEST(Listing, TheMediaTypeMayBeAbsentOrNull) {
  Json without = entry();
  without.erase("mime_type");
  EXPECT_EQ(decodeListing(listing(without.dump())).at(0).mimeType, std::nullopt);
  EXPECT_EQ(decodeWith("mime_type", "null").mimeType, std::nullopt);
  EXPECT_EQ(decodeWith("mime_type", "\"\"").mimeType, "");
  for (const char* wrong : {"5", "false", "[]", "{}"})
    EXPECT_THROW(decodeWith("mime_type", wrong), platform::NSCocoaError) << wrong;
}

TEST(Listing, SizesAreWholeNumbersOf64Bits) {
  const struct {
    const char* text;
    std::int64_t size;
  } accepted[] = {
      {"0", 0},
      {"-5", -5},
      {"9223372036854775807", std::numeric_limits<std::int64_t>::max()},
      {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
      {"5.0", 5},
      {"5e3", 5000},
      {"-0.0", 0},
  };
  for (const auto& [text, size] : accepted) EXPECT_EQ(decodeWith("size", text).size, size) << text;
  for (const char* text : {"9223372036854775808", "-9223372036854775809", "18446744073709551616",
                           "5.5", "1e300", "1e999", "-1e19", "123456789012345678901234567890", "05",
                           "+5", ".5", "0x10", "NaN", "Infinity"}) {
    EXPECT_THROW(decodeWith("size", text), platform::NSCocoaError) << text;
  }
}

TEST(Listing, DatesAreReadInBothForms) {
  const struct {
    const char* text;
    const char* expected;
  } cases[] = {
      {"2024-05-01T12:30:45.123Z", "2024-05-01T12:30:45.123Z"},
      {"2024-05-01T12:30:45.5+02:00", "2024-05-01T10:30:45.5Z"},
      {"2024-05-01T12:30:45.123456789Z", "2024-05-01T12:30:45.123456Z"},
      {"2024-05-01T12:30:45Z", "2024-05-01T12:30:45.0Z"},
      {"2024-05-01T12:30:45+02:00", "2024-05-01T10:30:45.0Z"},
      {"2024-05-01T12:30:45-11:30", "2024-05-02T00:00:45.0Z"},
      {"1969-12-31T23:59:59.5Z", "1969-12-31T23:59:59.5Z"},
      {"0000-01-01T00:00:00Z", "0000-01-01T00:00:00.0Z"},
      {"9999-12-31T23:59:59Z", "9999-12-31T23:59:59.0Z"},
      {"2024-02-29T00:00:00Z", "2024-02-29T00:00:00.0Z"},
  };
  for (const auto& [text, expected] : cases) {
    EXPECT_EQ(modificationDate(text), date(expected)) << text;
    EXPECT_EQ(decodeWith("modified_at", "\"" + std::string(text) + "\"").modifiedAt, date(expected))
        << text;
  }
}

TEST(Listing, WhatNamesNoTimeCountsAsNow) {
  const char* const cases[] = {
      "yesterday",
      "",
      "2024-05-01",
      "2024-05-01T12:30:45",
      "2024-05-01 12:30:45Z",
      "2024-05-01t12:30:45z",
      "2024-13-01T12:30:45Z",
      "2023-02-29T00:00:00Z",
      "2024-05-01T24:30:45Z",
      "2024-05-01T12:30:45.Z",
      "2024-05-01T12:30:45+0200",
      "99999-01-01T00:00:00Z",
      "-0001-01-01T00:00:00Z",
      "2024-05-01T12:30:45Z ",
      " 2024-05-01T12:30:45Z",
      "2024-05-01T12:30:45ZZ",
      "1714566645",
  };
  for (const char* text : cases) {
    const Date before = platform::dateNow();
    const Date read = decodeWith("modified_at", "\"" + std::string(text) + "\"").modifiedAt;
    EXPECT_GE(read, before) << text;
    EXPECT_LE(read, platform::dateNow()) << text;
  }
}

TEST(Listing, WhatIsNoListingIsRefused) {
  const std::string deep(100'000, '[');
  const std::string cases[] = {
      "",
      " ",
      "null",
      "5",
      "\"entries\"",
      "[]",
      "[" + listing("") + "]",
      "{}",
      R"({"path":"/"})",
      R"({"entries":[]})",
      R"({"entries":null,"path":"/"})",
      R"({"entries":{},"path":"/"})",
      R"({"entries":"","path":"/"})",
      R"({"entries":[],"path":null})",
      R"({"entries":[],"path":5})",
      R"({"entries":[null],"path":"/"})",
      R"({"entries":[[]],"path":"/"})",
      listing("").substr(0, listing("").size() - 1),
      listing(entry().dump()) + "x",
      listing("") + listing(""),
      listing("") + std::string("\0", 1),
      deep,
      deep + std::string(100'000, ']'),
      listing(deep + std::string(100'000, ']')),
      std::string(100'000, '{'),
      "<html><body>Sign in</body></html>",
      std::string("\x1f\x8b\x08\x00\x00", 5),
  };
  for (const auto& reply : cases) expectRefused(reply);
}

TEST(Listing, NamesAreTakenAsTheyCome) {
  const struct {
    const char* json;
    std::string name;
  } cases[] = {
      {R"("")", ""},
      {R"(".")", "."},
      {R"("..")", ".."},
      {R"("../../etc/passwd")", "../../etc/passwd"},
      {R"("a\/b")", "a/b"},
      {R"("a\u0000b")", std::string("a\0b", 3)},
      {R"("\u001b[31m\r\n")", "\x1B[31m\r\n"},
      {R"("\u202egnp.exe")", "\xE2\x80\xAEgnp.exe"},
      {R"("\ud83d\ude00")", "\xF0\x9F\x98\x80"},
      {"\"e\xCC\x81\"", "e\xCC\x81"},
      {R"("\u00e9")", "\xC3\xA9"},
  };
  for (const auto& [json, name] : cases) EXPECT_EQ(decodeWith("name", json).name, name) << json;
}

TEST(Listing, TextsThatAreNoUnicodeAreRefused) {
  for (const char* json : {R"("\ud800")", R"("\udc00")", R"("\ud800\ud800")", R"("\ud800x")",
                           "\"\xFF\"", "\"\xC0\xAF\"", "\"\xED\xA0\x80\"", "\"\xF4\x90\x80\x80\"",
                           "\"\xE2\x82\"", "\"a\nb\"", R"("\x41")", R"("\u12")"}) {
    EXPECT_THROW(decodeWith("name", json), platform::NSCocoaError) << json;
  }
}

TEST(Listing, AByteOrderMarkInFrontIsSkipped) {
  EXPECT_EQ(decodeListing("\xEF\xBB\xBF" + listing(entry().dump())).size(), 1U);
  expectRefused("\xFF\xFE" + listing(""));
}

TEST(Listing, KeysAreComparedByWhatTheyMean) {
  EXPECT_EQ(
      decodeListing(
          R"({"\u0065ntries":[{"n\u0061me":"a","type":"f","size":1,"modified_at":""}],"path":""})")
          .at(0)
          .name,
      "a");
  expectRefused(R"({"Entries":[],"path":"/"})");
}

TEST(Listing, OfARepeatedKeyTheFirstCounts) {
  EXPECT_EQ(
      decodeListing(listing(R"({"name":"a","name":"b","type":"f","size":1,"modified_at":""})"))
          .at(0)
          .name,
      "a");
}

TEST(Listing, AHundredMegabytesAreRead) {
  constexpr std::size_t kEntries = 1'000'000;
  const std::string record = R"({"name":"a name of a usual length.txt","type":"file","size":12345,)"
                             R"("modified_at":"2024-05-01T12:30:45.123Z"},)";
  std::string entries;
  entries.reserve(kEntries * record.size());
  for (std::size_t i = 0; i < kEntries; ++i) entries += record;
  entries.pop_back();
  ASSERT_GT(entries.size(), 100'000'000U);
  EXPECT_EQ(decodeListing(listing(entries)).size(), kEntries);
  entries.back() = ']';
  expectRefused(listing(entries));
}

TEST(Listing, IsWrittenWithTheSameKeys) {
  const std::vector<RemoteEntry> entries = {
      {"a/\"b\"", "file", 5, date("2024-05-01T12:30:45.123Z"), "text/plain"},
      {"d", "directory", 0, date("2024-05-01T12:30:45.0Z"), std::nullopt}};
  EXPECT_EQ(decodeListing(encodeListing(entries, "/x")), entries);
  EXPECT_EQ(Json::parse(encodeListing(entries, "/x")), Json::parse(R"({"path":"/x","entries":[
      {"name":"a/\"b\"","type":"file","size":5,"modified_at":"2024-05-01T12:30:45.123Z",
       "mime_type":"text/plain"},
      {"name":"d","type":"directory","size":0,"modified_at":"2024-05-01T12:30:45.000Z"}]})"));
  EXPECT_THROW(encodeListing({{"\xFF", "file", 0, {}, {}}}, "/"), platform::NSCocoaError);
}

}  // namespace
}  // namespace kestrune
