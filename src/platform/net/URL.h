// URLs: strict parsing and percent-encoding.
//
// Threads: pure functions and values; callable from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kestrune::platform {

/// A URL that satisfies RFC 3986's URI-reference grammar, kept exactly as it was written: nothing
/// is normalised, decoded or completed. It may be relative; requests to such a URL fail in
/// transport.
class URL {
 public:
  /// None if `text` is empty or is no URI reference.
  static std::optional<URL> parse(std::string_view text);

  const std::string& absoluteString() const { return text_; }
  /// In lower case; empty for a relative reference.
  const std::string& scheme() const { return scheme_; }
  /// Scheme, host and effective port ("https://example.org:443"), in lower case: what may see a
  /// credential. Compared as text, so that two ways to write one host differ. Without a port where
  /// the scheme has none of its own; empty where the URL names no scheme or no host.
  const std::string& origin() const { return origin_; }

 private:
  URL() = default;
  std::string text_;
  std::string scheme_;
  std::string origin_;
};

/// Percent-encodes every byte outside the URL-path-allowed set (RFC 3986 pchar and "/") with
/// upper-case digits. None if `text` is not valid UTF-8.
std::optional<std::string> percentEncodedForURLPath(std::string_view text);

}  // namespace kestrune::platform
