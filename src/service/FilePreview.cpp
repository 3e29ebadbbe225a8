#include "service/FilePreview.h"

#include <array>
#include <cctype>

#include "platform/files/Paths.h"
#include "platform/values/UTF8.h"

namespace kestrune::service {
namespace {

struct Known {
  std::string_view extension;
  FilePreview preview;
};

constexpr FilePreview picture(std::string_view type) { return {PreviewKind::picture, type}; }
constexpr FilePreview audio(std::string_view type) { return {PreviewKind::audio, type}; }
constexpr FilePreview video(std::string_view type) { return {PreviewKind::video, type}; }

/// The formats that browsers decode without running anything. SVG is not among them: it is a
/// document with scripts.
constexpr std::array kKnown{
    Known{"png", picture("image/png")},     Known{"jpg", picture("image/jpeg")},
    Known{"jpeg", picture("image/jpeg")},   Known{"gif", picture("image/gif")},
    Known{"webp", picture("image/webp")},   Known{"avif", picture("image/avif")},
    Known{"bmp", picture("image/bmp")},     Known{"ico", picture("image/x-icon")},
    Known{"mp3", audio("audio/mpeg")},      Known{"ogg", audio("audio/ogg")},
    Known{"oga", audio("audio/ogg")},       Known{"opus", audio("audio/ogg")},
    Known{"wav", audio("audio/wav")},       Known{"flac", audio("audio/flac")},
    Known{"m4a", audio("audio/mp4")},       Known{"aac", audio("audio/aac")},
    Known{"mp4", video("video/mp4")},       Known{"m4v", video("video/mp4")},
    Known{"webm", video("video/webm")},     Known{"ogv", video("video/ogg")},
    Known{"mov", video("video/quicktime")}, Known{"pdf", {PreviewKind::pdf, "application/pdf"}},
};

/// `text` without the character that its end has cut.
std::string_view withoutCutCharacter(std::string_view text) {
  constexpr std::size_t kLongest = 4;
  for (std::size_t back = 1; back <= kLongest && back <= text.size(); ++back) {
    const auto byte = static_cast<unsigned char>(text[text.size() - back]);
    if ((byte & 0xC0U) == 0x80U) continue;
    const std::size_t wanted = byte >= 0xF0 ? 4 : byte >= 0xE0 ? 3 : byte >= 0xC0 ? 2 : 1;
    return wanted > back ? text.substr(0, text.size() - back) : text;
  }
  return text;
}

}  // namespace

FilePreview previewOf(std::string_view name) {
  std::string extension = platform::pathExtension(name);
  for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const Known& known : kKnown) {
    if (known.extension == extension) return known.preview;
  }
  return {};
}

std::optional<std::string> shownText(std::string_view beginning, bool isCut) {
  const std::string_view text = isCut ? withoutCutCharacter(beginning) : beginning;
  if (text.find('\0') != std::string_view::npos || !platform::isValidUTF8(text))
    return std::nullopt;
  std::string shown;
  shown.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isControl = byte < 0x20 || byte == 0x7F;
    if (!isControl || c == '\t' || c == '\n' || c == '\r') {
      shown += c;
    } else {
      shown += "\xE2\x90";
      shown += static_cast<char>(byte == 0x7F ? 0xA1 : 0x80 + byte);
    }
  }
  return shown;
}

}  // namespace kestrune::service
