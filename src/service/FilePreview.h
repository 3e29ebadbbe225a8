// What the web page may show of a file, decided by a short list. Whatever is not on it is offered as
// a download only: a browser that shows a stored page or drawing would run what is in it in this
// origin's name.
//
// Threads: pure functions.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace kestrune::service {

enum class PreviewKind {
  none,
  picture,
  audio,
  video,
  /// Shown by the browser's own viewer, which runs nothing in the page's origin.
  pdf,
  /// Shown as the text that it is, whatever it means.
  text,
};

struct FilePreview {
  PreviewKind kind = PreviewKind::none;
  /// What the contents are served as; empty for none and text.
  std::string_view contentType;
};

/// The preview that the name's ending stands for: never text, which only the contents can tell.
FilePreview previewOf(std::string_view name);

/// How much of a text is shown.
inline constexpr std::size_t kShownTextBytes = 128U << 10U;

/// `beginning`, the first bytes of a file, as the text to be shown: nothing if it is no text in
/// UTF-8. A character that the end has cut is left out if `isCut` says that the file goes on. Control
/// characters other than tabs and line ends are shown as pictures (U+2400 and following).
std::optional<std::string> shownText(std::string_view beginning, bool isCut);

}  // namespace kestrune::service
