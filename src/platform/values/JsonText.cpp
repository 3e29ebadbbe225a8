#include "platform/values/JsonText.h"

namespace kestrune::platform {

namespace {

constexpr std::string_view kHexDigits = "0123456789abcdef";

bool needsEscape(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\' || c == '/';
}

void appendEscaped(std::string& out, char c) {
  switch (c) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '/':
      out += "\\/";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    default: {
      const auto value = static_cast<unsigned char>(c);
      out += "\\u00";
      out += kHexDigits[value >> 4U];
      out += kHexDigits[value & 0x0FU];
    }
  }
}

}  // namespace

void appendJsonText(std::string& out, std::string_view text) {
  out += '"';
  std::size_t plain = 0;  // start of the run that goes out as it is
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (!needsEscape(text[i])) continue;
    out.append(text.substr(plain, i - plain));
    appendEscaped(out, text[i]);
    plain = i + 1;
  }
  out.append(text.substr(plain));
  out += '"';
}

}  // namespace kestrune::platform
