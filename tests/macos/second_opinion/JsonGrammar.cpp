#include "JsonGrammar.h"

#include <cmath>
#include <cstdlib>
#include <string>

#include "platform/values/Json.h"
#include "platform/values/UTF8.h"

namespace kestrune::second_opinion {

namespace {

class Reader {
 public:
  explicit Reader(std::string_view text) : text_(text) {}

  JsonFault read() {
    if (text_.starts_with("\xEF\xBB\xBF")) at_ = 3;
    skipWhite();
    readValue();
    skipWhite();
    if (fault_ == JsonFault::none && at_ < text_.size()) fault_ = JsonFault::textAfterValue;
    return fault_;
  }

 private:
  bool ahead(std::string_view token) const { return text_.substr(at_).starts_with(token); }

  bool take(std::string_view token) {
    if (!ahead(token)) return false;
    at_ += token.size();
    return true;
  }

  char next() const { return at_ < text_.size() ? text_[at_] : '\0'; }

  bool isSound() const { return fault_ == JsonFault::none; }

  void fail(JsonFault fault) {
    if (isSound()) fault_ = fault;
  }

  /// Where none of the tokens stands that may: `usual`, unless what stands there tells more.
  void failHere(JsonFault usual) {
    if (at_ >= text_.size()) return fail(usual);
    if (ahead("\v") || ahead("\f")) return fail(JsonFault::spaceForeign);
    if (ahead("\xEF\xBB\xBF")) return fail(JsonFault::markRepeated);
    fail(text_[at_] == '\0' ? JsonFault::zeroByte : usual);
  }

  void skipWhite() {
    while (at_ < text_.size() &&
           std::string_view(" \t\r\n").find(text_[at_]) != std::string_view::npos)
      ++at_;
  }

  void readValue() {
    if (take("[")) return readMembers(']');
    if (take("{")) return readMembers('}');
    if (take("\"")) return readText();
    if (next() == '-' || (next() >= '0' && next() <= '9')) return readNumber();
    if (!take("null") && !take("true") && !take("false")) failHere(JsonFault::other);
  }

  void readKey() {
    if (!take("\"")) return failHere(JsonFault::other);
    readText();
    skipWhite();
    if (isSound() && !take(":")) failHere(JsonFault::other);
    skipWhite();
  }

  void readMembers(char close) {
    if (++depth_ > platform::kMaxJsonDepth) return fail(JsonFault::nestedDeeply);
    skipWhite();
    for (bool first = true; isSound(); first = false) {
      if (next() == close) {
        ++at_;
        --depth_;
        return first ? void() : fail(JsonFault::commaTrailing);
      }
      if (close == '}') readKey();
      if (isSound()) readValue();
      skipWhite();
      if (!isSound()) return;
      if (next() == close) {
        ++at_;
        --depth_;
        return;
      }
      if (!take(","))
        return failHere(at_ == text_.size() ? JsonFault::other : JsonFault::commaMissing);
      skipWhite();
    }
  }

  /// False if there is no digit.
  bool skipDigits() {
    const std::size_t start = at_;
    while (next() >= '0' && next() <= '9') ++at_;
    return at_ > start;
  }

  void readNumber() {
    const std::size_t start = at_;
    take("-");
    if (next() == '0' && at_ + 1 < text_.size() && text_[at_ + 1] >= '0' && text_[at_ + 1] <= '9')
      return fail(JsonFault::zeroLeading);
    if (!skipDigits()) return fail(JsonFault::digitsMissing);
    if (take(".") && !skipDigits()) return fail(JsonFault::digitsMissing);
    if (take("e") || take("E")) {
      if (!take("+")) take("-");
      if (!skipDigits()) return fail(JsonFault::digitsMissing);
    }
    const std::string number(text_.substr(start, at_ - start));
    if (std::isinf(std::strtod(number.c_str(), nullptr))) fail(JsonFault::numberHuge);
  }

  void readText() {
    while (isSound() && at_ < text_.size()) {
      const auto c = static_cast<unsigned char>(text_[at_]);
      if (c < 0x20) return fail(JsonFault::controlCharacter);
      if (take("\"")) return;
      if (take("\\")) {
        readEscape();
      } else if (c < 0x80) {
        ++at_;
      } else {
        readCharacter();
      }
    }
    fail(JsonFault::other);
  }

  void readCharacter() {
    for (std::size_t length = 2; length <= 4; ++length) {
      if (at_ + length > text_.size() || !platform::isValidUTF8(text_.substr(at_, length)))
        continue;
      at_ += length;
      return;
    }
    fail(JsonFault::notUTF8);
  }

  /// The unit that four hexadecimal digits name; -1 if they are not there.
  int takeUnit() {
    const std::string digits(text_.substr(at_, 4));
    if (digits.size() < 4 ||
        digits.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
      return -1;
    at_ += 4;
    return static_cast<int>(std::strtol(digits.c_str(), nullptr, 16));
  }

  void readEscape() {
    if (!take("u")) {
      if (at_ < text_.size() &&
          std::string_view("\"\\/bfnrt").find(text_[at_]) == std::string_view::npos)
        return fail(JsonFault::escapeUnknown);
      ++at_;
      return;
    }
    const int unit = takeUnit();
    if (unit < 0) return fail(JsonFault::escapeCut);
    if (unit >= 0xDC00 && unit <= 0xDFFF) return fail(JsonFault::surrogateAlone);
    if (unit < 0xD800 || unit > 0xDBFF) return;
    if (!take("\\u")) return fail(JsonFault::surrogateAlone);
    const int second = takeUnit();
    if (second < 0) return fail(JsonFault::escapeCut);
    if (second < 0xDC00 || second > 0xDFFF) fail(JsonFault::surrogateAlone);
  }

  const std::string_view text_;
  std::size_t at_ = 0;
  int depth_ = 0;
  JsonFault fault_ = JsonFault::none;
};

}  // namespace

JsonFault firstJsonFault(std::string_view text) { return Reader(text).read(); }

}  // namespace kestrune::second_opinion
