#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Comparison.h"
#include "FoundationAnswers.h"
#include "Generator.h"
#include "api/KestruneAPI.h"
#include "extension/ShareLinks.h"
#include "platform/net/URL.h"

namespace kestrune::second_opinion {
namespace {

constexpr int kGeneratedTexts = 4000;
constexpr int kTextsAPool = 500;

std::string utf8(char32_t character) {
  std::string text;
  const auto tail = [&text, character](int shift) {
    text += static_cast<char>(0x80U | ((character >> static_cast<unsigned>(shift)) & 0x3FU));
  };
  if (character < 0x80) {
    text += static_cast<char>(character);
  } else if (character < 0x800) {
    text += static_cast<char>(0xC0U | (character >> 6U));
    tail(0);
  } else if (character < 0x10000) {
    text += static_cast<char>(0xE0U | (character >> 12U));
    tail(6);
    tail(0);
  } else {
    text += static_cast<char>(0xF0U | (character >> 18U));
    tail(12);
    tail(6);
    tail(0);
  }
  return text;
}

char32_t generatedCharacter(Generator& generator) {
  if (!generator.oneIn(3)) return static_cast<char32_t>(generator.below(0x80));
  const std::size_t bounds[] = {0x100, 0x800, 0x10000, 0x110000};
  const auto character = static_cast<char32_t>(generator.below(bounds[generator.below(4)]));
  return character >= 0xD800 && character <= 0xDFFF ? U'\uFFFD' : character;
}

std::vector<std::string> texts(Generator& generator) {
  std::vector<std::string> result = {"",        "/",
                                     "//",      "a b",
                                     "100%",    "%2F",
                                     "%",       "a?b#c",
                                     "a;b",     "a:b",
                                     "a:b/c",   "@",
                                     "a+b=c&d", "[x]",
                                     "~",       "e\u0301",
                                     "\u0301",  "\U0010FFFF",
                                     "\uFFFF",  "\uFEFFa",
                                     "a\uFEFF", std::string("a\0b", 3)};
  for (char32_t character = 0; character < 0x180; ++character) result.push_back(utf8(character));
  for (int i = 0; i < kGeneratedTexts; ++i) {
    std::string text;
    for (std::size_t left = generator.below(12); left > 0; --left)
      text += utf8(generatedCharacter(generator));
    result.push_back(text);
  }
  result.push_back(std::string(100'000, ' '));
  return result;
}

/// `encoded` without the semicolons that the platform's set leaves out.
std::string withEscapedSemicolons(const std::string& encoded) {
  std::string result;
  for (const char c : encoded) {
    if (c == ';') {
      result += "%3B";
    } else {
      result += c;
    }
  }
  return result;
}

const AcceptedDifference kSemicolonStays = {
    "RFC 3986, 3.3: a segment may contain a semicolon; the platform's set leaves it out, as "
    "Apple's documentation of NSURLComponents says, for parsers of RFC 1808, which cut parameters "
    "off",
    [](const Difference& difference) {
      return difference.theirs == withEscapedSemicolons(*difference.ours);
    }};

const AcceptedDifference kZeroIsACharacter = {
    "RFC 3986, 2.1: %00 stands for a zero byte, where GNUstep ends the text at it",
    [](const Difference& difference) {
      return difference.theirs == difference.ours->substr(0, difference.ours->find('\0'));
    }};

const AcceptedDifference kMarkIsACharacter = {
    "RFC 3629, 6: what is no whole text has no signature to strip, where GNUstep's decoder drops a "
    "mark",
    [](const Difference& difference) {
      return difference.theirs && *difference.ours == "\uFEFF" + *difference.theirs;
    }};

using Encoding = Answer (*)(const std::string&);

void compareEncodings(Encoding ours, Encoding theirs, std::vector<AcceptedDifference> accepted) {
  const std::uint64_t seed = seedFromEnvironment();
  Generator generator(seed);
  Comparison comparison(seed, std::move(accepted));
  const std::vector<std::string> inputs = texts(generator);
  for (std::size_t done = 0; done < inputs.size();) {
    const ReleasePool pool;
    for (int i = 0; i < kTextsAPool && done < inputs.size(); ++i, ++done)
      comparison.compare(inputs[done], ours(inputs[done]), theirs(inputs[done]));
  }
  comparison.finish();
}

TEST(PercentEncodingAgainstFoundationTest, PathAllowedSet) {
  compareEncodings(
      [](const std::string& text) -> Answer { return platform::percentEncodedForURLPath(text); },
      foundationPathEncoded, {kSemicolonStays});
}

TEST(PercentEncodingAgainstFoundationTest, EncodedPathsDecodeToTheText) {
  compareEncodings([](const std::string& text) -> Answer { return text; },
                   [](const std::string& text) {
                     return foundationDecoded(*platform::percentEncodedForURLPath(text));
                   },
                   {kZeroIsACharacter, kMarkIsACharacter});
}

// The value that a form's decoder would take for something else is encoded further than the
// query-allowed set asks for; what is left must be allowed in a query.
TEST(PercentEncodingAgainstFoundationTest, RequestQueriesHoldWhatQueriesMayHold) {
  compareEncodings([](const std::string& text) -> Answer { return KestruneAPI::filesPath(text); },
                   [](const std::string& text) -> Answer {
                     std::string unescaped = KestruneAPI::filesPath(text);
                     const std::string written = unescaped;
                     std::erase(unescaped, '%');
                     const auto encoded = foundationQueryEncoded(unescaped);
                     return encoded == unescaped ? written : encoded;
                   },
                   {});
}

TEST(PercentEncodingAgainstFoundationTest, QueriesOfRequestsDecodeToThePath) {
  compareEncodings([](const std::string& text) -> Answer { return "path=" + text; },
                   [](const std::string& text) -> Answer {
                     const auto url =
                         foundationURL("https://example.org" + KestruneAPI::filesPath(text));
                     if (!url) return std::nullopt;
                     return foundationDecoded(url->query);
                   },
                   {kZeroIsACharacter});
}

TEST(PercentEncodingAgainstFoundationTest, ShareLinks) {
  compareEncodings(
      [](const std::string& text) -> Answer {
        return shareLinks("https://example.org", {"/" + text});
      },
      [](const std::string& text) -> Answer {
        if (text.empty()) return "";  // the root has no link
        std::string joined;
        std::string component;
        for (const char c : text + "/") {
          if (c != '/') {
            component += c;
            continue;
          }
          if (component.empty()) continue;
          joined += (joined.empty() ? "" : "/") + foundationPathEncoded(component).value_or("?");
          component.clear();
        }
        return "https://example.org/open/" + joined;
      },
      {kSemicolonStays});
}

}  // namespace
}  // namespace kestrune::second_opinion
