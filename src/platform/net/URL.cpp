#include "platform/net/URL.h"

#include <algorithm>
#include <boost/url/encode.hpp>
#include <boost/url/parse.hpp>
#include <boost/url/rfc/pchars.hpp>

#include "platform/values/UTF8.h"

namespace kestrune::platform {

namespace {

std::string asciiLowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  });
  return lower;
}

/// The port that is written, without leading zeros (it may be no port at all: the grammar takes any
/// digits), else the scheme's own; empty if it has none.
std::string effectivePort(std::string_view written, std::string_view scheme) {
  if (!written.empty()) {
    const std::size_t first = std::min(written.find_first_not_of('0'), written.size() - 1);
    return std::string(written.substr(first));
  }
  if (scheme == "https") return "443";
  if (scheme == "http") return "80";
  return {};
}

/// Where the host of `text` begins; npos where it has no authority.
std::size_t hostPosition(std::string_view text) {
  const std::size_t slashes = text.find("//");
  if (slashes == std::string_view::npos) return slashes;
  // Before an authority there is nothing, or a scheme with its colon.
  if (slashes != 0 && text.find_first_of(":/?#") != slashes - 1) return std::string_view::npos;
  const std::size_t begin = slashes + 2;
  const std::string_view authority = text.substr(begin, text.find_first_of("/?#", begin) - begin);
  return begin + authority.find_last_of('@') + 1;  // npos + 1 is 0
}

/// Boost.URL 1.81 refuses a name that begins with an address ("10.0.0.1.example.org"), although the
/// grammar has every address among its names. With a letter before its digits a host is always read as
/// a name.
constexpr char kLetterBeforeDigits = 'h';

bool beginsWithDigit(std::string_view host) {
  return !host.empty() && host.front() >= '0' && host.front() <= '9';
}

}  // namespace

std::optional<URL> URL::parse(std::string_view text) {
  if (text.empty()) return std::nullopt;
  std::string readable(text);
  const std::size_t host = hostPosition(text);
  const bool hasLetter = host != std::string_view::npos && beginsWithDigit(text.substr(host));
  if (hasLetter) readable.insert(host, 1, kLetterBeforeDigits);
  const auto parsed = boost::urls::parse_uri_reference(readable);
  if (!parsed) return std::nullopt;
  // Boost.URL 1.81 takes "//host:port" with the path "port" for a reference; the grammar wants the
  // path after an authority to be empty or to begin with a slash.
  const std::string_view path = parsed->encoded_path();
  if (parsed->has_authority() && !path.empty() && !path.starts_with('/')) return std::nullopt;
  URL url;
  url.text_ = text;
  url.scheme_ = asciiLowerCase(parsed->scheme());
  if (parsed->has_scheme() && !parsed->encoded_host().empty()) {
    std::string_view name = parsed->encoded_host();
    if (hasLetter) name.remove_prefix(1);
    url.origin_ = url.scheme_ + "://" + asciiLowerCase(name);
    const std::string port = effectivePort(parsed->port(), url.scheme_);
    if (!port.empty()) url.origin_ += ":" + port;
  }
  return url;
}

std::optional<std::string> percentEncodedForURLPath(std::string_view text) {
  if (!isValidUTF8(text)) return std::nullopt;
  return boost::urls::encode(text, boost::urls::pchars + '/');
}

}  // namespace kestrune::platform
