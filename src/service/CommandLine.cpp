#include "service/CommandLine.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <string>
#include <system_error>

namespace kestrune::service {
namespace {

/// A week, as common object stores have it.
constexpr std::int64_t kMaxURLLifetimeSeconds = 604'800;

constexpr const char* kFooter =
    "The staging directory holds uploads until they are imported; it lies outside the root on the "
    "same file system.\n"
    "Uploads that nobody imports within 24 hours are removed.\n"
    "The service speaks plain HTTP: put a proxy that speaks TLS in front of it, and give its "
    "address with --public-url.\n"
    "SIGTERM and SIGINT let running requests finish, for at most 10 seconds.";

/// Splits "127.0.0.1:8080", "[::1]:8080" or "localhost:8080". Returns what is wrong, or an empty
/// text.
std::string parseListen(const std::string& text, Options& options) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) return "--listen: expected ADDRESS:PORT";
  std::string host = text.substr(0, colon);
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    return "--listen: an IPv6 address stands in brackets, as in [::1]:8080";
  }
  const char* begin = text.data() + colon + 1;
  const char* end = text.data() + text.size();
  const auto [parsed, error] = std::from_chars(begin, end, options.listenPort);
  if (error != std::errc() || parsed != end)
    return "--listen: the port must be a number from 0 to 65535";
  if (host.empty()) return "--listen: the address is missing";
  options.listenHost = host;
  return {};
}

/// Returns what is wrong, or an empty text.
std::string parsePublicURL(std::string text, Options& options) {
  if (text.empty()) return {};
  while (text.ends_with('/')) text.pop_back();
  const bool known = text.starts_with("http://") || text.starts_with("https://");
  if (!known || text.find_first_of("?# \t\r\n") != std::string::npos) {
    return "--public-url: expected http://HOST or https://HOST, with a path if there is one";
  }
  options.publicURL = std::move(text);
  return {};
}

}  // namespace

std::string urlHost(const std::string& host) {
  return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

std::optional<CommandLine> parseCommandLine(int argc, char** argv, int& exitCode) {
  CommandLine line;
  CLI::App app("A remote file service that serves a directory tree.", "kestrune-service");
  app.footer(kFooter);
  std::string listen = "127.0.0.1:0";
  std::string publicURL;
  std::int64_t urlLifetimeSeconds = line.options.urlLifetime.count();
  bool noSync = false;
  app.add_option("--root", line.options.root, "the directory to serve")->required();
  app.add_option("--listen", listen,
                 "ADDRESS:PORT; a numeric address or localhost; port 0 takes a free one")
      ->required();
  app.add_option("--token-file", line.tokenFile, "the file that holds the bearer token")
      ->required();
  app.add_option("--staging", line.options.staging,
                 "where uploads grow; default: a hidden directory beside the root");
  app.add_option("--threads", line.options.threads,
                 "threads for the network; default: one a processor")
      ->check(CLI::Range(1, 256));
  app.add_option("--public-url", publicURL,
                 "what clients reach this service by, if not by the address it listens on");
  app.add_option("--url-lifetime", urlLifetimeSeconds,
                 "seconds that a pre-signed URL is valid; default: 3600")
      ->check(CLI::Range(std::int64_t{1}, kMaxURLLifetimeSeconds));
  app.add_flag("--no-sync", noSync,
               "do not wait for the disk: after a power cut, confirmed changes may be lost");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    exitCode = app.exit(error);
    return std::nullopt;
  }
  std::string mistake = parseListen(listen, line.options);
  if (mistake.empty()) mistake = parsePublicURL(publicURL, line.options);
  if (!mistake.empty()) {
    exitCode = app.exit(CLI::ValidationError(mistake));
    return std::nullopt;
  }
  line.options.urlLifetime = std::chrono::seconds(urlLifetimeSeconds);
  if (noSync) line.options.durability = platform::Durability::atomic;
  return line;
}

}  // namespace kestrune::service
