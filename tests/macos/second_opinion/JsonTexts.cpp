#include "JsonTexts.h"

#include <array>
#include <cstdio>
#include <limits>

namespace kestrune::second_opinion {

namespace {

using nlohmann::json;

const std::vector<std::string_view> kSpaces = {"", "", "", "", " ", "\n", "\t\r\n "};

const std::vector<std::string_view> kTextPieces = {"a",
                                                   "key",
                                                   " ",
                                                   "/",
                                                   "é",
                                                   "e\u0301",
                                                   "資料",
                                                   "\U0001F600",
                                                   "\u2028",
                                                   "\u007F",
                                                   "\uFFFF",
                                                   "\\\"",
                                                   "\\\\",
                                                   "\\/",
                                                   "\\b",
                                                   "\\f",
                                                   "\\n",
                                                   "\\r",
                                                   "\\t",
                                                   "\\u00e9",
                                                   "\\u0041",
                                                   "\\uD83D\\uDE00",
                                                   "\\ud83d\\ude00",
                                                   "\\u001f",
                                                   "[",
                                                   "{",
                                                   "}",
                                                   ":",
                                                   ",",
                                                   "'",
                                                   "//",
                                                   "\\uFFFF"};

const std::vector<std::string_view> kNumbers = {"0",
                                                "-0",
                                                "1",
                                                "-1",
                                                "42",
                                                "0.5",
                                                "-0.5",
                                                "1.0",
                                                "1e3",
                                                "1E3",
                                                "1e+3",
                                                "1e-3",
                                                "0e0",
                                                "0.0",
                                                "1.5e10",
                                                "9007199254740993",
                                                "9223372036854775807",
                                                "-9223372036854775808",
                                                "1234567890.125",
                                                "3.14159",
                                                "0.1",
                                                "2.5e-8",
                                                "123456789",
                                                "1e15",
                                                "5e0",
                                                "0.000001",
                                                "100",
                                                "65.625"};

const std::vector<std::string_view> kFaults = {",",
                                               ":",
                                               "[",
                                               "]",
                                               "{",
                                               "}",
                                               "\"",
                                               "\\",
                                               "0",
                                               "-",
                                               "+",
                                               ".",
                                               "e",
                                               "'",
                                               "/",
                                               "#",
                                               "//",
                                               "/**/",
                                               "true",
                                               "nul",
                                               "NaN",
                                               "Infinity",
                                               "\\u12",
                                               "\\x41",
                                               "\\ud800",
                                               "\\udc00",
                                               "\n",
                                               "\x01",
                                               "\xFF",
                                               "\xC3",
                                               "\xC0\x80",
                                               "\xED\xA0\x80",
                                               "\xF5\x80\x80\x80",
                                               "\xEF\xBB\xBF",
                                               "\u00A0",
                                               "\v",
                                               "\f",
                                               "00",
                                               "1.",
                                               ".5",
                                               "1e",
                                               "0x1",
                                               "\x7F"};

const std::string kZeroByte(1, '\0');

std::string repeated(std::string_view text, int times) {
  std::string result;
  for (int i = 0; i < times; ++i) result += text;
  return result;
}

std::string nested(int depth) { return repeated("[", depth) + repeated("]", depth); }

std::string joinedMembers(Generator& generator, int depth, bool withKeys) {
  std::string text;
  for (std::size_t left = generator.below(5); left > 0; --left) {
    if (!text.empty()) text += ",";
    text += generator.pick(kSpaces);
    if (withKeys) {
      text += "\"" + generator.joined(kTextPieces, 3) + "\"";
      text += std::string(generator.pick(kSpaces)) + ":" + std::string(generator.pick(kSpaces));
    }
    text += generatedJsonText(generator, depth);
    text += generator.pick(kSpaces);
  }
  return text;
}

std::string generatedCharacters(Generator& generator) {
  const std::vector<std::string_view> pieces = {
      "a",    "/",    "\"", "\\", "\b",         "\f",     "\n",     "\r",     "\t", "\x01",
      "\x1F", "\x7F", "é",  "資", "\U0001F600", "\u2028", "\uFFFF", "\uFEFF", "<",  "'"};
  std::string text = generator.joined(pieces, 8);
  if (generator.oneIn(20)) text += kZeroByte;
  return text;
}

json generatedNumber(Generator& generator) {
  const auto bits =
      static_cast<std::int64_t>(generator.below(std::numeric_limits<std::size_t>::max()));
  switch (generator.below(4)) {
    case 0:
      return bits;
    case 1:
      return bits >> generator.below(64);
    case 2:
      return static_cast<double>(bits) / 1024.0;
    default:
      return static_cast<double>(static_cast<int>(generator.below(2'000'000)) - 1'000'000) / 64.0;
  }
}

}  // namespace

json generatedJsonValue(Generator& generator, int depth) {
  switch (generator.below(depth > 0 ? 7 : 4)) {
    case 0:
      return generator.oneIn(3) ? json() : json(generator.oneIn(2));
    case 1:
      return generatedNumber(generator);
    case 2:
    case 3:
      return generatedCharacters(generator);
    case 4: {
      json array = json::array();
      for (std::size_t left = generator.below(5); left > 0; --left)
        array.push_back(generatedJsonValue(generator, depth - 1));
      return array;
    }
    default: {
      json object = json::object();
      for (std::size_t left = generator.below(5); left > 0; --left)
        object[generatedCharacters(generator)] = generatedJsonValue(generator, depth - 1);
      return object;
    }
  }
}

std::string generatedJsonText(Generator& generator, int depth) {
  switch (generator.below(depth > 0 ? 7 : 4)) {
    case 0:
      return std::string(generator.pick({"null", "true", "false"}));
    case 1:
    case 2:
      return std::string(generator.pick(kNumbers));
    case 3:
      return "\"" + generator.joined(kTextPieces, 5) + "\"";
    case 4:
      return "[" + joinedMembers(generator, depth - 1, false) + "]";
    default:
      return "{" + joinedMembers(generator, depth - 1, true) + "}";
  }
}

std::string mutatedJsonText(Generator& generator, std::string text) {
  const std::size_t place = generator.below(text.size() + 1);
  switch (generator.below(5)) {
    case 0:
      return text.substr(0, place);
    case 1:
      return text.erase(place, 1);
    case 2:
      if (generator.oneIn(30)) return text.insert(place, kZeroByte);
      return text.insert(place, generator.pick(kFaults));
    case 3:
      if (place == text.size()) return text + std::string(generator.pick(kFaults));
      return text.replace(place, 1, generator.pick(kFaults));
    default:
      return text.insert(place, text.substr(place, 1 + generator.below(4)));
  }
}

std::vector<std::string> handPickedJsonTexts() {
  std::vector<std::string> texts = {
      "", " ", "{}", "[]", "\"\"", "0", "null", "true", "false", " 7 ", "[1,2", "[1,]", "[,1]",
      "[,]", "[1,,2]", "[1 2]", "{,}", "{\"a\":1,}", "{\"a\"}", "{\"a\":}", "{\"a\" 1}", "{a:1}",
      "{1:2}", "{\"a\":1 \"b\":2}", "{\"a\"::1}", "'a'", "nul", "nulll", "True", "NaN", "Infinity",
      "-Infinity", "]", "}", "[}", "{]", "[[", "\"a", "\"", "\"\\", "\"\\\"", "{}x", "{} {}", "1 2",
      "[1]]",
      // Numbers.
      "01", "-01", "00", "+1", "-", "--1", "1.", ".5", "-.5", "1.e5", "1e", "1e+", "1e5.5", "0x10",
      "1_0", "1,0", "0e5", "-0", "-0.0", "0.0", "[-0]", "1E400", "-1E400", "1e308", "1e-400",
      "5e-324", "2.5e-324", "4.9e-324", "1e309", "0e999", "1.7976931348623157e308",
      "1.7976931348623159e308", "2.2250738585072011e-308", "2.2250738585072014e-308",
      "9007199254740993", "9007199254740993.0", "9223372036854775807", "9223372036854775808",
      "-9223372036854775808", "-9223372036854775809", "18446744073709551615",
      "18446744073709551616", "0.1", "0.30000000000000004", "123456789012345678901234567890",
      "0.1234567890123456789012345678901234567890", "1" + repeated("0", 400),
      "0." + repeated("0", 400) + "1", "3.0", "1e2", "100e-2", "1.0e+0", "5e0", "1e19", "1e18",
      // Texts.
      "\"\\u00e9\"", "\"\\u0000\"", "\"a\\u0000b\"", "\"\\ud83d\\ude00\"", "\"\\ud800\"",
      "\"\\udc00\"", "\"\\ud800\\ud800\"", "\"\\ud800a\"", "\"\\udc00\\ud800\"", "\"\\ud800\\n\"",
      "\"\\u12\"", "\"\\u12g4\"", "\"\\U0041\"", "\"\\x41\"", "\"\\q\"", "\"\\'\"", "\"\\0\"",
      "\"a\nb\"", "\"a\tb\"", "\"\x01\"", "\"\x7F\"", "\"\u2028\"", "\"\uFFFF\"", "\"\\uffff\"",
      "\"\uFEFF\"", "\"\\ufeff\"", "{\"\":1}", "\"\\ufffeab\"", "{\"\uFEFFa\":\"\uFEFF\"}",
      "{\"\\u0061\":1}",
      // Bytes that are no text, marks, zeros.
      "\"\xFF\"", "\"\xC3\"", "\"\xC0\x80\"", "\"\xED\xA0\x80\"", "\"\xF5\x80\x80\x80\"",
      "\"\xF4\x90\x80\x80\"", "\x80", "[\"a\xFFz\"]", "\xEF\xBB\xBF{}", "\xEF\xBB\xBF",
      "\xEF\xBB{}", " \xEF\xBB\xBF{}", "\xEF\xBB\xBF\xEF\xBB\xBF{}", "{}\xEF\xBB\xBF",
      "[\xEF\xBB\xBF]", "{}" + kZeroByte, "{}" + kZeroByte + "x", kZeroByte,
      "\"a" + kZeroByte + "b\"", "[1" + kZeroByte + "]", kZeroByte + "{}",
      std::string("\xFF\xFE{\0}\0", 6), std::string("{\0}\0", 4), std::string("\0{\0}", 4),
      // White space, comments.
      "\u00A0[]", "[\v]", "[\f]", "\r\n\t []\r\n\t ", "// c\n1", "/* c */1", "[1]//", "[1/**/]",
      "#\n1",
      // Repeated keys.
      R"({"a":1,"b":2,"a":3})", R"({"a":1,"\u0061":2})", R"({"a":{"b":1},"a":{"c":2}})",
      // Keys that are the same only after normalisation.
      "{\"\u00E9\":1,\"e\u0301\":2}"};
  for (const int depth : {10, 127, 128, 129, 500, 1000}) texts.push_back(nested(depth));
  texts.push_back(repeated("{\"a\":", 128) + "1" + repeated("}", 128));
  texts.push_back(repeated("{\"a\":", 129) + "1" + repeated("}", 129));
  texts.push_back(repeated("[", 2000));
  texts.push_back(repeated("]", 2000));
  texts.push_back("\"" + repeated("[{", 5000) + "\"");
  texts.push_back("[" + repeated("1,", 20'000) + "1]");
  return texts;
}

}  // namespace kestrune::second_opinion
