// A uniform type: what kind of thing a file is. Only what file providers need of it: the folder
// type, the generic data type, and the types that the machine's shared-mime-info database registers
// for filename extensions.
//
// Threads: values; all functions may be called from any thread. The database is read once, on first
// use.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrune::platform {

class UTType {
 public:
  /// A folder.
  static UTType folder();
  /// Generic data: a file of no particular type.
  static UTType data();
  /// The type registered for a filename extension (without its dot) that conforms to generic data;
  /// none if there is none. Letters match exactly first, then regardless of case (ASCII), as
  /// shared-mime-info prescribes; of several types the one with the highest weight counts. Only
  /// patterns of the form "*.ext" are registrations of "ext".
  static std::optional<UTType> typeForFilenameExtension(std::string_view filenameExtension);
  /// The type that `text` names: "folder", "data", or a media type.
  static UTType named(std::string text);

  /// "folder", "data", or the media type ("application/pdf").
  const std::string& identifier() const { return identifier_; }
  bool operator==(const UTType&) const = default;

 private:
  explicit UTType(std::string identifier) : identifier_(std::move(identifier)) {}
  std::string identifier_;
};

}  // namespace kestrune::platform
