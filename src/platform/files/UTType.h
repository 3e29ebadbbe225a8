// A uniform type: what kind of thing a file is. Only what file providers need of it: the folder
// type, the generic data type, and the types that the machine registers for filename extensions.
//
// What the machine registers stands on Linux in its shared-mime-info database (MimeDatabase). On
// macOS only the system's frameworks know it: there no extension has a type until the program
// around this library has set a registry.
//
// Threads: values; all functions may be called from any thread.
#pragma once

#include <functional>
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
  /// none if there is none.
  static std::optional<UTType> typeForFilenameExtension(std::string_view filenameExtension);

  /// Answers which type is registered for a filename extension: its identifier, none if there is
  /// none. Called on the thread that asks, on several at once. Must not throw.
  using Registry = std::function<std::optional<std::string>(const std::string& filenameExtension)>;
  /// Puts a registry in the place of the machine's own; null restores that. For programs that know
  /// the types of their system. Who asks meanwhile may still get the earlier one's answer.
  static void setRegistry(Registry registry);

  /// The type that `text` names: "folder", "data", or an identifier of the registry.
  static UTType named(std::string text);

  /// "folder", "data", or the registry's: the machine's own on Linux is a media type
  /// ("application/pdf").
  const std::string& identifier() const { return identifier_; }
  bool operator==(const UTType&) const = default;

 private:
  explicit UTType(std::string identifier) : identifier_(std::move(identifier)) {}
  std::string identifier_;
};

}  // namespace kestrune::platform
