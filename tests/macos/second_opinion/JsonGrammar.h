// The grammar of RFC 8259, read strictly and slowly: where a text leaves it first, and how. Differences
// between readers are told apart by this.
//
// Threads: pure functions; callable from any thread.
#pragma once

#include <string_view>

namespace kestrune::second_opinion {

enum class JsonFault {
  none,
  textAfterValue,
  commaMissing,
  commaTrailing,
  zeroLeading,
  digitsMissing,
  controlCharacter,  // unescaped in a text
  escapeUnknown,
  escapeCut,  // \u without its four digits
  surrogateAlone,
  notUTF8,
  numberHuge,  // no double is near it
  nestedDeeply,
  spaceForeign,  // a vertical tab or form feed between tokens
  zeroByte,      // between tokens
  markRepeated,  // a byte-order mark between tokens
  other,
};

/// The first fault of `text`; a byte-order mark in front is none.
JsonFault firstJsonFault(std::string_view text);

}  // namespace kestrune::second_opinion
