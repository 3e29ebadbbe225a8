#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Comparison.h"
#include "FoundationAnswers.h"
#include "Generator.h"
#include "platform/net/URL.h"

namespace kestrune::second_opinion {
namespace {

constexpr int kGeneratedURLs = 6000;
constexpr int kURLsAPool = 500;

const std::vector<std::string_view> kSchemes = {
    "https:", "https:", "https:", "http:", "HTTPS:", "ftp:", "h+t-t.p:", "mailto:", "", "1h:", ":"};
const std::vector<std::string_view> kUsers = {"", "", "", "u@", "u:p@", "u%40:p@", "@", "a@b@"};
const std::vector<std::string_view> kHosts = {"example.org",
                                              "example.org",
                                              "Example.ORG",
                                              "127.0.0.1",
                                              "[::1]",
                                              "[2001:DB8::A]",
                                              "",
                                              "ex%61mple",
                                              "localhost",
                                              "a.",
                                              "[::g]",
                                              "[::1",
                                              "a b",
                                              "ü.example",
                                              "a_b",
                                              "a!$&'()*+,;=b",
                                              "::1",
                                              "%ZZ",
                                              "[]"};
const std::vector<std::string_view> kPorts = {"",   "",      "",       ":443", ":80",   ":8443",
                                              ":0", ":0443", ":99999", ":",    ":port", ":-1"};
const std::vector<std::string_view> kPieces = {
    "/", "/", "/",   "a", "b.c", ".",  "..", "%20", "%2F",    "%E2%82%AC", "!$&'()*+,;=",
    ":", "@", "-_~", "%", "%G0", "%2", " ",  "\"",  "<",      ">",         "^",
    "`", "{", "}",   "|", "\\",  "[",  "]",  "é",   "\u007F", "\t",        "\n"};

std::string generatedURL(Generator& generator) {
  // Mostly sound pieces: of a text with five faults only the first is looked at.
  const bool sound = !generator.oneIn(3);
  const std::vector<std::string_view> pieces(kPieces.begin(),
                                             sound ? kPieces.begin() + 14 : kPieces.end());
  std::string text(generator.pick(kSchemes));
  if (!generator.oneIn(4)) {
    text += "//";
    text += generator.pick(kUsers);
    text += generator.pick(kHosts);
    text += generator.pick(kPorts);
    if (!generator.oneIn(8)) text += "/";
  }
  text += generator.joined(pieces, 6);
  if (generator.oneIn(2)) text += "?" + generator.joined(pieces, 4);
  if (generator.oneIn(4)) text += "#" + generator.joined(pieces, 3);
  if (generator.oneIn(20)) text += "#";
  return text;
}

const std::vector<std::string> kPickedURLs = {"",
                                              " ",
                                              ".",
                                              "/",
                                              "//",
                                              "///",
                                              "?",
                                              "#",
                                              "?q",
                                              "#f",
                                              "a",
                                              "a:b",
                                              "a:",
                                              ":",
                                              "::",
                                              "%20",
                                              "https:",
                                              "https:/",
                                              "https://",
                                              "https:///p",
                                              "https://:443/",
                                              "https://@/",
                                              "https://u@/",
                                              "https:example.org",
                                              "//example.org/x",
                                              "//example.org:port",
                                              "/files?path=%2FDocs",
                                              "https://example.org/%E2%82%AC?%ff#%00",
                                              "https://example.org:4294967739/",
                                              "https://example.org:18446744073709551617/",
                                              "https://example.org@evil.example/",
                                              "https://example.org#@evil.example/",
                                              "https://example.org?@evil.example/",
                                              "https://example.org\\@evil.example/",
                                              "https://[::1]x/",
                                              "https://[::1]:8443/",
                                              "https://[fe80::1%25eth0]/",
                                              "https://[v1.a]/",
                                              "https://[]/",
                                              "https://[::1]?q=1/",
                                              "https://[::1]?q:/",
                                              "https://[::1]:443?q:8/",
                                              "https://[::1]#f",
                                              "https://example.org/[",
                                              "https://a!b/",
                                              "https://127.0.0.1-a/",
                                              "https://127.0.0.1a/",
                                              "https://127.0.0.1.example.org/",
                                              "https://127.0.0.1_/",
                                              "https://127.0.0.1~/",
                                              "https://127.0.0.1%61/",
                                              "https://127.0.0.1.5/",
                                              "https://1.2.3.4.5:80/",
                                              "https://127.0.0.1!/",
                                              "https://127.0.0.256/",
                                              "https://127.0.0./",
                                              "https://127.0.0.1./",
                                              "https://127.0.0.01/",
                                              "https://1/",
                                              "https://0x7f.1/",
                                              "https://127.0.0.1example.org/",
                                              "https://u@127.0.0.1-x.example.org:80/",
                                              "https://a@b@c/",
                                              "https://::1]/",
                                              "https://example.org:80:80/",
                                              "https://example.org/a#b#c",
                                              " https://example.org",
                                              "https://example.org ",
                                              "https://example.org/a b",
                                              "\uFEFFhttps://example.org",
                                              "file:///etc",
                                              "data:,x",
                                              "mailto:a@example.org",
                                              "urn:a:b",
                                              "1https://example.org",
                                              "+a:b",
                                              "a+.-9:b",
                                              "a_b:c",
                                              "a/b:c",
                                              "https://example.org/" + std::string(100'000, 'a')};

std::vector<std::string> urls(Generator& generator) {
  std::vector<std::string> texts = kPickedURLs;
  for (int i = 0; i < kGeneratedURLs; ++i) texts.push_back(generatedURL(generator));
  return texts;
}

template <class Compare>
void forEachURL(Generator& generator, Compare compare) {
  const std::vector<std::string> texts = urls(generator);
  for (std::size_t done = 0; done < texts.size();) {
    const ReleasePool pool;
    for (int i = 0; i < kURLsAPool && done < texts.size(); ++i, ++done) compare(texts[done]);
  }
}

std::string lowerCase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

/// Where the generic syntax draws its lines (RFC 3986, appendix B), for texts that satisfy it or not.
struct Parts {
  std::string beforeColon;  // up to the first colon, if no other delimiter comes before it
  bool hasColon = false;
  bool hasAuthority = false;
  std::string authority;
  std::string afterAuthority;
};

Parts partsOf(const std::string& text) {
  Parts parts;
  std::string rest = text;
  if (const auto end = rest.find_first_of(":/?#"); end != std::string::npos && rest[end] == ':') {
    parts.hasColon = true;
    parts.beforeColon = rest.substr(0, end);
    rest.erase(0, end + 1);
  }
  parts.hasAuthority = rest.starts_with("//");
  if (!parts.hasAuthority) return parts;
  const auto end = std::min(rest.find_first_of("/?#", 2), rest.size());
  parts.authority = rest.substr(2, end - 2);
  parts.afterAuthority = rest.substr(end);
  return parts;
}

bool isScheme(const std::string& text) {
  const auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
  if (text.empty() || !isLetter(text.front())) return false;
  return std::all_of(text.begin(), text.end(), [isLetter](char c) {
    return isLetter(c) || (c >= '0' && c <= '9') || c == '+' || c == '-' || c == '.';
  });
}

/// What comes between the bracket behind an address and the next slash; empty if there is no bracket.
std::string afterBrackets(const std::string& text) {
  const auto authority = text.find("//");
  const auto bracket = authority == std::string::npos ? authority : text.find(']', authority);
  if (bracket == std::string::npos) return "";
  return text.substr(bracket + 1, text.find('/', bracket) - bracket - 1);
}

/// Host and port as `origin()` writes them.
struct Place {
  std::string host;
  std::string port;
};

Place placeOf(const std::string& origin) {
  const auto host = origin.find("://");
  if (host == std::string::npos) return {};
  const std::string rest = origin.substr(host + 3);
  const auto colon = rest.rfind(':');
  const auto bracket = rest.rfind(']');
  if (colon == std::string::npos || (bracket != std::string::npos && colon < bracket))
    return {rest, ""};
  return {rest.substr(0, colon), rest.substr(colon + 1)};
}

std::string hostOf(const FoundationURL& url) {
  if (url.scheme.empty()) return "";
  const std::string host = lowerCase(url.host.value_or(""));
  return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

std::string portOf(const FoundationURL& url) {
  if (hostOf(url).empty()) return "";
  if (url.port) return std::to_string(*url.port);
  const std::string scheme = lowerCase(url.scheme);
  return scheme == "https" ? "443" : scheme == "http" ? "80" : "";
}

bool onlyTheyAccept(const Difference& difference) { return !difference.ours && difference.theirs; }
bool onlyWeAccept(const Difference& difference) { return difference.ours && !difference.theirs; }

/// `text` with a slash where the authority ends without one.
std::string withSlash(const std::string& text) {
  const Parts parts = partsOf(text);
  if (!parts.hasAuthority || parts.afterAuthority.starts_with('/')) return text;
  return text.substr(0, text.size() - parts.afterAuthority.size()) + "/" + parts.afterAuthority;
}

/// `text` with letters for the delimiters that may stand in a host's name.
std::string withPlainHost(std::string text) {
  const Parts parts = partsOf(text);
  const std::size_t end = text.size() - parts.afterAuthority.size();
  for (std::size_t i = end - parts.authority.size() + parts.authority.find('@') + 1; i < end; ++i) {
    if (std::string_view("!$&'()*+,;=").find(text[i]) != std::string_view::npos) text[i] = 'a';
  }
  return text;
}

const std::vector<AcceptedDifference> kAcceptanceDifferences = {
    {"Apple's documentation of URL(string:) refuses the empty string",
     [](const Difference& difference) {
       return onlyTheyAccept(difference) && difference.input.empty();
     }},
    {"RFC 3986, 3.1 and 4.2: what comes before a first colon is a scheme, which begins with a "
     "letter and has no underscore, or else there is a slash before it",
     [](const Difference& difference) {
       const Parts parts = partsOf(difference.input);
       return onlyTheyAccept(difference) && parts.hasColon && !isScheme(parts.beforeColon);
     }},
    {"RFC 3986, 3.5: a fragment contains no number sign",
     [](const Difference& difference) {
       return onlyTheyAccept(difference) &&
              std::count(difference.input.begin(), difference.input.end(), '#') > 1;
     }},
    {"RFC 3986, 3.2.2: nothing but a port follows an address in brackets, where GNUstep looks "
     "at nothing more up to the next slash",
     [](const Difference& difference) {
       const std::string rest = afterBrackets(difference.input);
       return onlyTheyAccept(difference) &&
              rest.find_first_not_of("0123456789", rest.starts_with(':') ? 1 : 0) !=
                  std::string::npos;
     }},
    {"RFC 3986, 3.2: the authority ends also at a question mark or number sign, where GNUstep "
     "goes on to the next slash",
     [](const Difference& difference) {
       return onlyWeAccept(difference) && foundationURL(withSlash(difference.input));
     }},
    {"RFC 3986, 3.2.2: an address of a future version (\"v1.a\") may stand in brackets",
     [](const Difference& difference) {
       return onlyWeAccept(difference) && difference.input.starts_with("https://[v1.a]") &&
              foundationURL("https://[::1]" + difference.input.substr(14));
     }},
    {"RFC 3986, 3.2.2: brackets hold an address",
     [](const Difference& difference) {
       return onlyTheyAccept(difference) &&
              partsOf(difference.input).authority.find("[]") != std::string::npos;
     }},
    {"RFC 3986, 3.2.2: brackets stand around an address and nowhere else",
     [](const Difference& difference) {
       std::string besides = difference.input;
       const std::string authority = partsOf(besides).authority;
       besides.erase(besides.find(authority), authority.size());
       return onlyTheyAccept(difference) && besides.find_first_of("[]") != std::string::npos;
     }},
    {"RFC 3986, 3.2.2: a registered name may contain \"!$&'()*+,;=\"",
     [](const Difference& difference) {
       return onlyWeAccept(difference) && foundationURL(withPlainHost(withSlash(difference.input)));
     }}};

TEST(URLAgainstFoundationTest, WhichTextsAreURLs) {
  const std::uint64_t seed = seedFromEnvironment();
  Generator generator(seed);
  Comparison comparison(seed, kAcceptanceDifferences);
  forEachURL(generator, [&comparison](const std::string& text) {
    comparison.compare(text, platform::URL::parse(text) ? Answer("a URL") : Answer(),
                       foundationURL(text) ? Answer("a URL") : Answer());
  });
  comparison.finish();
}

using PartOfOurs = std::string (*)(const platform::URL&);
using PartOfTheirs = std::string (*)(const FoundationURL&);

/// One part of the texts that are URLs for both.
void compareParts(PartOfOurs ours, PartOfTheirs theirs, std::vector<AcceptedDifference> accepted) {
  const std::uint64_t seed = seedFromEnvironment();
  Generator generator(seed);
  Comparison comparison(seed, std::move(accepted));
  forEachURL(generator, [&comparison, ours, theirs](const std::string& text) {
    const auto our = platform::URL::parse(text);
    const auto their = foundationURL(text);
    if (our && their) comparison.compare(text, ours(*our), theirs(*their));
  });
  comparison.finish();
}

/// `url` without an empty query's question mark and an empty fragment's number sign.
std::string withoutEmptyParts(std::string url) {
  if (url.ends_with('#')) url.pop_back();
  const auto question = url.find('?');
  const bool emptyQuery =
      question != std::string::npos && (question + 1 == url.size() || url[question + 1] == '#');
  if (emptyQuery && url.find('#') > question) url.erase(question, 1);
  return url;
}

TEST(URLAgainstFoundationTest, AbsoluteStrings) {
  compareParts(
      [](const platform::URL& url) { return url.absoluteString(); },
      [](const FoundationURL& url) { return url.absoluteString; },
      {{"RFC 3986, 6.2.3: a delimiter before an empty query or fragment is not to be removed",
        [](const Difference& difference) {
          return difference.theirs == withoutEmptyParts(*difference.ours);
        }},
       {"an address is kept as it was written, where GNUstep writes the scheme in title case",
        [](const Difference& difference) {
          return difference.ours->starts_with("HTTPS:") &&
                 difference.theirs->starts_with("Https:") &&
                 withoutEmptyParts(*difference.ours).substr(5) ==
                     withoutEmptyParts(*difference.theirs).substr(5);
        }}});
}

TEST(URLAgainstFoundationTest, Schemes) {
  compareParts([](const platform::URL& url) { return url.scheme(); },
               [](const FoundationURL& url) { return lowerCase(url.scheme); }, {});
}

TEST(URLAgainstFoundationTest, Hosts) {
  compareParts([](const platform::URL& url) { return placeOf(url.origin()).host; }, hostOf,
               {{"origins are compared as texts and a credential goes to none that is written "
                 "otherwise, so the host keeps its escapes",
                 [](const Difference& difference) {
                   return partsOf(difference.input).authority.find('%') != std::string::npos &&
                          difference.theirs == foundationDecoded(*difference.ours);
                 }},
                {"RFC 3986, 3.2: the authority ends also at a question mark or number sign, where "
                 "GNUstep goes on to the next slash behind an address in brackets",
                 [](const Difference& difference) {
                   const std::string rest = afterBrackets(difference.input);
                   return rest.find_first_of("?#") != std::string::npos &&
                          difference.theirs->starts_with(*difference.ours);
                 }}});
}

TEST(URLAgainstFoundationTest, Ports) {
  compareParts([](const platform::URL& url) { return placeOf(url.origin()).port; }, portOf,
               {{"RFC 3986, 3.2: the authority ends also at a question mark or number sign, where "
                 "GNUstep looks for "
                 "a port up to the next slash behind an address in brackets",
                 [](const Difference& difference) {
                   const std::string rest = afterBrackets(difference.input);
                   return rest.find(':', rest.find_first_of("?#")) != std::string::npos &&
                          !partsOf(difference.input).authority.ends_with(':');
                 }},
                {"RFC 3986, 3.2.3: an empty port is the scheme's own, not port 0",
                 [](const Difference& difference) {
                   return partsOf(difference.input).authority.ends_with(':') &&
                          difference.theirs == "0";
                 }},
                {"a port beyond 65535 is none, and must not become another one by the remainder",
                 [](const Difference& difference) {
                   return difference.ours->size() >= 5 && std::stold(*difference.ours) > 65535 &&
                          partsOf(difference.input).authority.ends_with(":" + *difference.ours);
                 }}});
}

}  // namespace
}  // namespace kestrune::second_opinion
