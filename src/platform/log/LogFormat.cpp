#include <algorithm>
#include <boost/locale/utf.hpp>
#include <cstdio>
#include <iomanip>
#include <locale>
#include <optional>
#include <sstream>

#include "platform/log/Log.h"

namespace kestrune::platform {

namespace {

constexpr std::string_view kMissing = "<missing>";
constexpr std::string_view kPrivate = "<private>";

// More digits than any double has; a wild precision must not cost memory.
constexpr int kMostPrecision = 1100;

/// One conversion of a format: "%{public}s", "%.*f".
struct Conversion {
  bool isPublic = false;
  bool isBool = false;
  bool precisionFromArgument = false;
  std::optional<int> precision;
  char type = 0;
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// Reads what follows a percent sign.
class ConversionReader {
 public:
  explicit ConversionReader(std::string_view rest) : rest_(rest) {}

  /// Sets `rest` to what follows the conversion; nothing, and `rest` unchanged, if it is none.
  std::optional<Conversion> read(std::string_view& rest) {
    if (!readAttributes()) return std::nullopt;
    readPrecision();
    while (!rest_.empty() &&
           std::string_view("hlqjzt").find(rest_.front()) != std::string_view::npos) {
      rest_.remove_prefix(1);
    }
    if (rest_.empty() || std::string_view("sdiuf").find(rest_.front()) == std::string_view::npos)
      return std::nullopt;
    conversion_.type = rest_.front();
    rest_.remove_prefix(1);
    rest = rest_;
    return conversion_;
  }

 private:
  bool readAttributes() {
    if (!rest_.starts_with('{')) return true;
    const std::size_t end = rest_.find('}');
    if (end == std::string_view::npos) return false;
    std::string_view list = rest_.substr(1, end - 1);
    while (!list.empty()) {
      const std::size_t comma = std::min(list.find(','), list.size());
      readAttribute(list.substr(0, comma));
      list.remove_prefix(std::min(comma + 1, list.size()));
    }
    rest_.remove_prefix(end + 1);
    return true;
  }

  void readAttribute(std::string_view name) {
    while (name.starts_with(' ')) name.remove_prefix(1);
    while (name.ends_with(' ')) name.remove_suffix(1);
    if (name == "public") conversion_.isPublic = true;
    if (name == "bool") conversion_.isBool = true;
  }

  void readPrecision() {
    if (!rest_.starts_with('.')) return;
    rest_.remove_prefix(1);
    if (rest_.starts_with('*')) {
      rest_.remove_prefix(1);
      conversion_.precisionFromArgument = true;
      return;
    }
    int precision = 0;
    while (!rest_.empty() && isDigit(rest_.front())) {
      precision = std::min(precision * 10 + (rest_.front() - '0'), kMostPrecision);
      rest_.remove_prefix(1);
    }
    conversion_.precision = precision;
  }

  std::string_view rest_;
  Conversion conversion_;
};

std::string decimal(double value, int precision) {
  // printf would ask the process's locale for the decimal point; macOS has std::to_chars of floating
  // point from 13.3 on.
  std::ostringstream text;
  text.imbue(std::locale::classic());
  text << std::fixed << std::setprecision(precision) << value;
  return text.str();
}

/// An argument by its own type, so that a format that does not fit it is harmless.
struct Renderer {
  const Conversion& conversion;

  std::string operator()(std::int64_t value) const {
    if (conversion.isBool) return value != 0 ? "true" : "false";
    if (conversion.type == 'u') return std::to_string(static_cast<std::uint64_t>(value));
    return std::to_string(value);
  }
  std::string operator()(double value) const {
    return decimal(value, conversion.precision.value_or(6));
  }
  std::string operator()(bool value) const { return value ? "true" : "false"; }
  std::string operator()(const std::string& value) const {
    return conversion.isPublic ? value : std::string(kPrivate);
  }
};

/// Hands out a record's arguments in order.
class ArgumentReader {
 public:
  explicit ArgumentReader(const std::vector<LogArgument>& arguments) : arguments_(arguments) {}
  const LogArgument* next() { return used_ < arguments_.size() ? &arguments_[used_++] : nullptr; }

 private:
  const std::vector<LogArgument>& arguments_;
  std::size_t used_ = 0;
};

std::string render(Conversion conversion, ArgumentReader& arguments) {
  if (conversion.precisionFromArgument) {
    const LogArgument* const precision = arguments.next();
    if (precision == nullptr) return std::string(kMissing);
    // As in C, a negative precision counts as none.
    const auto* const number = std::get_if<std::int64_t>(precision);
    if (number != nullptr && *number >= 0) {
      conversion.precision = static_cast<int>(std::min<std::int64_t>(*number, kMostPrecision));
    }
  }
  const LogArgument* const argument = arguments.next();
  if (argument == nullptr) return std::string(kMissing);
  return std::visit(Renderer{conversion}, *argument);
}

/// Control characters, line and paragraph separators, and what changes the direction of text.
bool disturbsDisplay(std::uint32_t character) {
  return character < 0x20 || (character >= 0x7F && character <= 0x9F) || character == 0x061C ||
         (character >= 0x200E && character <= 0x200F) ||
         (character >= 0x2028 && character <= 0x202E) ||
         (character >= 0x2066 && character <= 0x2069);
}

std::string escaped(std::uint32_t character) {
  switch (character) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    default:
      break;
  }
  char text[16];
  const int length =
      std::snprintf(text, sizeof text, character < 0x80 ? "\\x%02x" : "\\u%04x", character);
  return {text, static_cast<std::size_t>(length)};
}

}  // namespace

std::string LogRecord::message() const {
  ArgumentReader reader(arguments);
  std::string line;
  std::string_view rest = format;
  while (!rest.empty()) {
    const std::size_t percent = std::min(rest.find('%'), rest.size());
    line.append(rest.substr(0, percent));
    rest.remove_prefix(percent);
    if (rest.empty()) break;
    rest.remove_prefix(1);
    if (rest.starts_with('%')) {
      rest.remove_prefix(1);
      line.push_back('%');
    } else if (const auto conversion = ConversionReader(rest).read(rest)) {
      line.append(render(*conversion, reader));
    } else {
      line.push_back('%');
    }
  }
  return line;
}

std::string escapeForDisplay(std::string_view text) {
  using Traits = boost::locale::utf::utf_traits<char>;
  std::string shown;
  shown.reserve(text.size());
  const char* position = text.data();
  const char* const end = position + text.size();
  while (position != end) {
    const char* next = position;
    const auto character = Traits::decode(next, end);
    if (character == boost::locale::utf::illegal || character == boost::locale::utf::incomplete) {
      // One byte only: the next may begin a character.
      char byte[8];
      const int length =
          std::snprintf(byte, sizeof byte, "\\x%02x", static_cast<unsigned char>(*position));
      shown.append(byte, static_cast<std::size_t>(length));
      ++position;
      continue;
    }
    if (disturbsDisplay(character)) {
      shown.append(escaped(character));
    } else {
      shown.append(position, next);
    }
    position = next;
  }
  return shown;
}

}  // namespace kestrune::platform
