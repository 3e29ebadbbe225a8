#include "api/WireRecords.h"

#include <gtest/gtest.h>

#include <string>

#include "platform/values/NSError.h"

namespace kestrune {
namespace {

using platform::Json;

// Every field of the records is a required text, so one set of checks serves them all.
template <class Record>
void expectRecord(const Json& good, const Record& expected) {
  EXPECT_EQ(Record::decode(good), expected) << good;
  EXPECT_EQ(expected.encode(), good);

  Json more = good;
  more["unknown"] = {{"nested", true}};
  EXPECT_EQ(Record::decode(more), expected) << more;

  for (const auto& [key, value] : good.items()) {
    Json without = good;
    without.erase(key);
    EXPECT_THROW(Record::decode(without), platform::NSCocoaError) << without;
    for (const Json& wrong : {Json(), Json(7), Json(true), Json::array({"x"}), Json::object()}) {
      Json changed = good;
      changed[key] = wrong;
      EXPECT_THROW(Record::decode(changed), platform::NSCocoaError) << changed;
    }
  }
  for (const Json& other : {Json(), Json(7), Json("text"), Json::array({good}), Json::object()})
    EXPECT_THROW(Record::decode(other), platform::NSCocoaError) << other;
}

TEST(WireRecords, AllFieldsAreRequiredTexts) {
  expectRecord<PresignResponse>({{"url", "u"}, {"method", "GET"}, {"path", "/p"}},
                                {"u", "GET", "/p"});
  expectRecord<DirectPresignResponse>({{"uploadId", "i"}, {"url", "u"}, {"key", "k"}},
                                      {"i", "u", "k"});
  expectRecord<DirectMultipartInitResponse>({{"uploadId", "i"}, {"s3UploadId", "s"}, {"key", "k"}},
                                            {"i", "s", "k"});
  expectRecord<PartURLResponse>({{"url", "u"}}, {"u"});
}

TEST(WireRecords, EmptyTextsAreTexts) { EXPECT_EQ(PartURLResponse::decode({{"url", ""}}).url, ""); }

TEST(WireRecords, ADictionaryHoldsTextsAlone) {
  EXPECT_TRUE(StringDictionary::decode(Json::object()).values.empty());
  const StringDictionary two = StringDictionary::decode({{"a", "1"}, {"", ""}});
  EXPECT_EQ(two.values, (std::map<std::string, std::string>{{"a", "1"}, {"", ""}}));

  const Json refused[] = {{{"ok", true}},
                          {{"a", "1"}, {"n", 5}},
                          {{"a", nullptr}},
                          {{"a", Json::object()}},
                          {{"a", Json::array()}},
                          Json::array(),
                          Json::array({"a"}),
                          Json("text"),
                          Json(5),
                          Json(true)};
  for (const Json& reply : refused) {
    EXPECT_THROW(StringDictionary::decode(reply), platform::NSCocoaError) << reply;
    EXPECT_THROW(OptionalStringDictionary::decode(reply), platform::NSCocoaError) << reply;
  }
}

TEST(WireRecords, OnlyTheOptionalDictionaryMayBeNull) {
  EXPECT_THROW(StringDictionary::decode(nullptr), platform::NSCocoaError);
  EXPECT_FALSE(OptionalStringDictionary::decode(nullptr).dictionary);
  EXPECT_TRUE(OptionalStringDictionary::decode(Json::object()).dictionary);
  EXPECT_EQ(OptionalStringDictionary::decode({{"a", "1"}}).dictionary->values.at("a"), "1");
}

TEST(WireRecords, ReasonsForRefusingNameTheKeyAndNotTheValue) {
  try {
    PresignResponse::decode({{"url", "https://secret"}, {"method", 7}, {"path", "/p"}});
    FAIL() << "decoded";
  } catch (const platform::NSCocoaError& error) {
    EXPECT_EQ(error.code(), platform::NSCocoaError::coderInvalidValue);
    EXPECT_NE(error.localizedDescription().find("\"method\""), std::string::npos);
    EXPECT_EQ(error.localizedDescription().find("secret"), std::string::npos);
  }
}

}  // namespace
}  // namespace kestrune
