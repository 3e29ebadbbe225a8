#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "CanonicalJson.h"
#include "Comparison.h"
#include "FoundationAnswers.h"
#include "Generator.h"
#include "JsonGrammar.h"
#include "JsonTexts.h"
#include "OurJson.h"
#include "platform/values/Json.h"
#include "platform/values/JsonText.h"

namespace kestrune::second_opinion {
namespace {

using OrderedJson = nlohmann::ordered_json;

constexpr int kGeneratedTexts = 6000;
constexpr int kTextsAPool = 300;
constexpr int kDepth = 4;

std::vector<std::string> jsonTexts(Generator& generator) {
  std::vector<std::string> texts = handPickedJsonTexts();
  for (int i = 0; i < kGeneratedTexts; ++i) {
    std::string text = generatedJsonText(generator, kDepth);
    for (std::size_t faults = generator.below(3); faults > 0; --faults)
      text = mutatedJsonText(generator, text);
    texts.push_back(std::move(text));
  }
  return texts;
}

AcceptedDifference refused(JsonFault fault, const char* why) {
  return {why, [fault](const Difference& difference) {
            return !difference.ours && difference.theirs &&
                   firstJsonFault(difference.input) == fault;
          }};
}

/// `text` as GNUstep's string class keeps it.
std::string withoutMark(const std::string& text) {
  return text.starts_with("\uFEFF") ? text.substr(3) : text;
}

/// `value` as GNUstep has it: whole numbers as doubles, and, if asked for, without marks in front of texts.
OrderedJson asGNUstepHasIt(const OrderedJson& value, bool losesMarks) {
  if (value.is_number()) return value.get<double>();
  if (value.is_string() && losesMarks) return withoutMark(value.get<std::string>());
  OrderedJson result = value;
  if (value.is_array()) {
    for (auto& element : result) element = asGNUstepHasIt(element, losesMarks);
  } else if (value.is_object()) {
    result = OrderedJson::object();
    for (const auto& [key, member] : value.items())
      result[losesMarks ? withoutMark(key) : key] = asGNUstepHasIt(member, losesMarks);
  }
  return result;
}

/// True if ours is what `difference.input` says and theirs is what GNUstep makes of that.
bool onlyLoses(const Difference& difference, bool losesMarks) {
  const OrderedJson value =
      OrderedJson::parse(difference.input, nullptr, /*allow_exceptions=*/false);
  return !value.is_discarded() && difference.ours == canonicalJson(nlohmann::json(value)) &&
         difference.theirs == canonicalJson(nlohmann::json(asGNUstepHasIt(value, losesMarks)));
}

/// The same where ours differs as well.
bool theyOnlyLose(const Difference& difference) {
  const OrderedJson value =
      OrderedJson::parse(difference.input, nullptr, /*allow_exceptions=*/false);
  return !value.is_discarded() &&
         difference.theirs == canonicalJson(nlohmann::json(asGNUstepHasIt(value, true)));
}

bool repeatsKeys(const std::string& text) {
  using Event = nlohmann::json::parse_event_t;
  std::vector<std::set<std::string>> open;
  bool repeats = false;
  const auto look = [&](int, Event event, nlohmann::json& parsed) {
    if (event == Event::object_start) open.emplace_back();
    if (event == Event::object_end) open.pop_back();
    if (event == Event::key && !open.back().insert(parsed.get<std::string>()).second)
      repeats = true;
    return true;
  };
  return !nlohmann::json::parse(text, look, /*allow_exceptions=*/false).is_discarded() && repeats;
}

bool hasLongNumber(const std::string& text) {
  static const std::regex digits(R"(\d{19})");
  return std::regex_search(text, digits);
}

// How what GNUstep reads from sound texts is not what they say.

const AcceptedDifference kWholeNumbersAreExact = {
    "RFC 8259, 6: readers may keep whole numbers beyond 53 bits exactly, and sizes need it; "
    "GNUstep reads doubles",
    [](const Difference& difference) { return onlyLoses(difference, false); }};

const AcceptedDifference kMarksAreCharacters = {
    "RFC 8259, 7: any character may begin a text, where GNUstep drops U+FEFF",
    [](const Difference& difference) { return onlyLoses(difference, true); }};

const AcceptedDifference kSwappedMarksAreCharacters = {
    "RFC 8259, 7: any character may begin a text, where GNUstep takes U+FFFE for a sign of swapped "
    "bytes",
    [](const Difference& difference) {
      return difference.ours && difference.theirs &&
             difference.ours->find("'\uFFFE") != std::string::npos;
    }};

/// What GNUstep's reader lets pass and RFC 8259 does not.
std::vector<AcceptedDifference> laxities() {
  return {
      refused(JsonFault::textAfterValue,
              "RFC 8259, 2: a text is one value, and nothing follows it"),
      refused(JsonFault::commaMissing, "RFC 8259, 4 and 5: members are separated by commas"),
      refused(JsonFault::commaTrailing, "RFC 8259, 4 and 5: a member follows each comma"),
      refused(JsonFault::zeroLeading, "RFC 8259, 6: leading zeros are not allowed"),
      refused(JsonFault::digitsMissing,
              "RFC 8259, 6: a number has digits before and after its point, and in its exponent"),
      refused(JsonFault::controlCharacter, "RFC 8259, 7: control characters are escaped"),
      refused(JsonFault::escapeUnknown, "RFC 8259, 7: a backslash begins one of nine escapes"),
      refused(JsonFault::numberHuge, "RFC 8259, 6: numbers that no double holds are not infinite"),
      refused(JsonFault::spaceForeign,
              "RFC 8259, 2: white space is the blank, the tab, line feed and carriage return"),
      refused(JsonFault::zeroByte,
              "RFC 8259, 8.1: a text is UTF-8, where GNUstep takes zeros for a sign of other "
              "encodings"),
      refused(JsonFault::markRepeated, "RFC 8259, 8.1: a mark may be ignored, once, in front"),
      refused(JsonFault::nestedDeeply, "RFC 8259, 9: a reader may limit the depth of nesting"),
  };
}

void compareReaders(Answer (*ours)(std::string_view), std::vector<AcceptedDifference> accepted) {
  const std::uint64_t seed = seedFromEnvironment();
  Generator generator(seed);
  Comparison comparison(seed, std::move(accepted));
  const std::vector<std::string> texts = jsonTexts(generator);
  for (std::size_t done = 0; done < texts.size();) {
    const ReleasePool pool;
    for (int i = 0; i < kTextsAPool && done < texts.size(); ++i, ++done)
      comparison.compare(texts[done], ours(texts[done]), foundationJson(texts[done]));
  }
  comparison.finish();
}

std::vector<AcceptedDifference> operator+(std::vector<AcceptedDifference> first,
                                          const std::vector<AcceptedDifference>& second) {
  first.insert(first.end(), second.begin(), second.end());
  return first;
}

TEST(JsonAgainstFoundationTest, Records) {
  compareReaders(recordAnswer, laxities() + std::vector{kWholeNumbersAreExact, kMarksAreCharacters,
                                                        kSwappedMarksAreCharacters});
}

TEST(JsonAgainstFoundationTest, Listings) {
  compareReaders(
      listingAnswer,
      std::vector<AcceptedDifference>{
          {"RFC 8259, 4: which of repeated keys counts is open; a listing's reader "
           "stops at the first",
           [](const Difference& difference) {
             return difference.ours && repeatsKeys(difference.input) && theyOnlyLose(difference);
           }},
          {"RFC 8259, 6: a reader may limit the range of numbers; a listing's whole "
           "numbers have 64 bits",
           [](const Difference& difference) {
             return !difference.ours && hasLongNumber(difference.input) && theyOnlyLose(difference);
           }}} +
          laxities() +
          std::vector{kWholeNumbersAreExact, kMarksAreCharacters, kSwappedMarksAreCharacters});
}

// The two writers are judged by what is read from their texts, which GNUstep's reader must not have but
// as it has every text.
std::string gnustepWouldHave(const nlohmann::json& value) {
  return canonicalJson(nlohmann::json(asGNUstepHasIt(OrderedJson(value), true)));
}

TEST(JsonAgainstFoundationTest, WrittenRecordsAreReadAsTheyWere) {
  const std::uint64_t seed = seedFromEnvironment();
  Generator generator(seed);
  Comparison comparison(seed, {});
  for (int i = 0; i < kGeneratedTexts; ++i) {
    const ReleasePool pool;
    const auto value = generatedJsonValue(generator, kDepth);
    const std::string written = platform::encodeJson(value);
    comparison.compare(written, gnustepWouldHave(value), foundationJson(written));
  }
  comparison.finish();
}

TEST(JsonAgainstFoundationTest, WrittenTextsAreReadAsTheyWere) {
  const std::uint64_t seed = seedFromEnvironment();
  Generator generator(seed);
  Comparison comparison(seed, {});
  for (int i = 0; i < kGeneratedTexts; ++i) {
    const ReleasePool pool;
    const auto value = generatedJsonValue(generator, 0);
    if (!value.is_string()) continue;
    std::string written;
    platform::appendJsonText(written, value.get<std::string>());
    comparison.compare(written, gnustepWouldHave(value), foundationJson(written));
  }
  comparison.finish();
}

}  // namespace
}  // namespace kestrune::second_opinion
