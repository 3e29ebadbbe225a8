// A checked path in the store: absolute, "/" is the root, no trailing slash elsewhere.
//
// Every path that a client sends passes through `parse`; what it refuses never reaches the file
// system. The check is not the protection against leaving the root (that is Tree's, by descriptor),
// it makes each item have exactly one path.
//
// Accepted: valid UTF-8 of at most 4,095 bytes (the kernel's limit for one call); names of 1 to 255
// bytes other than "." and "..", without ASCII control characters. Bytes are compared as they are:
// no normalisation, no case folding.
//
// Threads: immutable values.
#pragma once

#include <string>
#include <string_view>

namespace kestrune::service {

/// Whether an item of this name can be addressed through the service. Names on disk for which this
/// is false are left out of listings.
bool isAcceptableName(std::string_view name);

class RemotePath {
 public:
  /// Throws ServiceError 400 that says what is wrong.
  static RemotePath parse(std::string_view text);

  const std::string& text() const { return text_; }
  bool isRoot() const { return text_.size() == 1; }
  /// The last component.
  /// REQUIRES: not the root.
  std::string name() const;
  /// The folder that holds the item.
  /// REQUIRES: not the root.
  RemotePath parent() const;
  /// The path relative to the root, "." for the root itself.
  std::string relative() const { return isRoot() ? "." : text_.substr(1); }
  /// Whether this item lies somewhere below `folder` (an item is not below itself).
  bool isBelow(const RemotePath& folder) const;

  bool operator==(const RemotePath&) const = default;

 private:
  explicit RemotePath(std::string text) : text_(std::move(text)) {}
  std::string text_;
};

}  // namespace kestrune::service
