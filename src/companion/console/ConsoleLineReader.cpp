#include "companion/console/ConsoleLineReader.h"

namespace kestrune {

std::optional<ConsoleLineReader::Line> ConsoleLineReader::next() {
  using Traits = std::istream::traits_type;
  std::streambuf& bytes = *input_.rdbuf();
  Line line;
  bool any = false;
  for (auto byte = bytes.sbumpc(); byte != Traits::eof(); byte = bytes.sbumpc()) {
    any = true;
    if (byte == '\n') return line;
    if (line.text.size() < limitBytes_) {
      line.text.push_back(Traits::to_char_type(byte));
    } else {
      line.isCut = true;
    }
  }
  if (!any) return std::nullopt;
  return line;
}

}  // namespace kestrune
