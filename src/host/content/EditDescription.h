// What is needed to send a changed file if the database is lost: noted beside its contents as <number>.edit.
//
//   note = "kestrune edit 1" NUL path NUL base NUL executable NUL size NUL fetchable NUL ranges NUL
//
// `executable` is "0" or "1", the ranges are as in Ranges::text. Names are bytes that hold no NUL. A note that was cut off, or
// is of another form, is none.
//
// Threads: values.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "host/content/ContentState.h"

namespace kestrune::host {

struct EditDescription {
  /// "/a/b".
  std::string path;
  /// The version at the store from which the changes began; empty for a file that was made here.
  std::string base;
  bool isExecutable = false;
  std::int64_t sizeBytes = 0;
  /// As ContentState has them.
  std::int64_t fetchableBytes = 0;
  Ranges present;

  std::string text() const;
  /// None if `text` is not what `text()` gives.
  static std::optional<EditDescription> parse(std::string_view text);
  bool operator==(const EditDescription&) const = default;
};

/// A changed file whose row is lost.
struct LostEdit {
  ContentNumber number = 0;
  EditDescription description;
};

}  // namespace kestrune::host
