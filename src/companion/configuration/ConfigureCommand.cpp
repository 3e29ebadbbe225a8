#include "companion/configuration/ConfigureCommand.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iterator>

#include "companion/configuration/CommandError.h"
#include "companion/configuration/ServiceProbe.h"
#include "config/SharedConfig.h"
#include "platform/files/AtomicFile.h"
#include "platform/log/Log.h"
#include "platform/net/URL.h"
#include "platform/values/Json.h"
#include "platform/values/NSError.h"

namespace kestrune {

using platform::NSError;
using platform::Secret;

namespace {

constexpr std::size_t kMaximumTokenBytes = 16U << 10U;  // servers take no longer header lines
constexpr mode_t kOthersBits = 077;
#if defined(__APPLE__)
constexpr const char* kOrElsewhere = "";  // the place is the system's
#else
constexpr const char* kOrElsewhere = ", or set XDG_DATA_HOME";
#endif

std::string quoted(const std::string& text) { return "'" + platform::escapeForDisplay(text) + "'"; }

std::string readStandardInput(std::istream& input) {
  std::string text;
  for (char c = 0; text.size() <= kMaximumTokenBytes && input.get(c);) text.push_back(c);
  return text;
}

Secret readToken(const std::string& file, std::istream& standardInput) {
  if (file == "-") return checkedToken(readStandardInput(standardInput), "standard input");
  try {
    return checkedToken(platform::readFile(file, kMaximumTokenBytes), quoted(file));
  } catch (const NSError& error) {
    throw CommandError("Cannot read the token: " + error.localizedDescription() +
                       ". Name a small file that holds the token and nothing else.");
  }
}

/// A directory that others can write to would let them replace the configuration.
void takeDirectory(const std::filesystem::path& directory) {
  struct stat status {};
  if (::stat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
    throw CommandError("There is no directory " + quoted(directory) +
                       " and it cannot be made. Check its parent directory" + kOrElsewhere + ".");
  }
  if (status.st_uid != ::geteuid()) {
    throw CommandError("The directory " + quoted(directory) +
                       " belongs to another user, who could read the token. Remove it" +
                       kOrElsewhere + ".");
  }
  if ((status.st_mode & kOthersBits) != 0 && ::chmod(directory.c_str(), S_IRWXU) != 0) {
    throw CommandError("Others may use the directory " + quoted(directory) +
                       ", and that cannot be changed. Run: chmod 700 " + quoted(directory));
  }
}

}  // namespace

std::string checkedServiceAddress(std::string_view text) {
  const auto slashes = text.find("//");
  const auto authority = slashes == std::string_view::npos ? text : text.substr(slashes + 2);
  if (authority.substr(0, authority.find('/')).find('@') != std::string_view::npos) {
    // Before all else: the other messages quote the address.
    throw CommandError(
        "The address holds a user name or a password, which would be shown. Leave them out; the "
        "token is given with --token-file.");
  }
  const std::string shown = quoted(std::string(text));
  const auto url = platform::URL::parse(text);
  if (!url || url->origin().empty() || (url->scheme() != "http" && url->scheme() != "https")) {
    throw CommandError(
        shown + " is no address of a service. Give it as https://HOST or https://HOST/PATH.");
  }
  if (text.find_first_of("?#") != std::string_view::npos) {
    throw CommandError(shown +
                       " has a query or a fragment, but request paths are appended to the address. "
                       "Leave it out.");
  }
  while (text.ends_with('/')) text.remove_suffix(1);
  return std::string(text);
}

Secret checkedToken(std::string_view text, const std::string& source) {
  constexpr std::string_view kWhiteSpace = " \t\r\n";
  const auto first = text.find_first_not_of(kWhiteSpace);
  if (first == std::string_view::npos)
    throw CommandError("The token from " + source + " is empty.");
  text = text.substr(first, text.find_last_not_of(kWhiteSpace) - first + 1);
  const bool isPlain =
      std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7F; });
  if (!isPlain) {
    throw CommandError("What " + source +
                       " holds is no token: only visible ASCII characters, on one line and without "
                       "spaces, can be sent.");
  }
  if (text.size() > kMaximumTokenBytes)
    throw CommandError("What " + source + " holds is too long for a token.");
  return Secret(std::string(text));
}

std::string configure(const ConfigureOptions& options, std::istream& standardInput) {
  SharedConfig::Payload payload;
  payload.apiURL = checkedServiceAddress(options.url);
  payload.token.emplace(options.typedToken ? checkedToken(*options.typedToken, "the terminal")
                                           : readToken(options.tokenFile, standardInput));
  if (options.checks) {
    const ServiceProbe probe = probeService(*payload.apiURL, *payload.token);
    if (probe.outcome != ServiceProbe::Outcome::listed)
      throw CommandError(probe.problem + " Nothing was written; --no-check writes all the same.");
  }
  takeDirectory(SharedConfig::configDir());
  const auto file = SharedConfig::file();
  try {
    platform::replaceFile(file, payload.encode(), platform::Durability::durable);
  } catch (const NSError& error) {
    throw CommandError("Cannot write the configuration: " + error.localizedDescription() +
                       ". The earlier configuration, if any, still counts.");
  }
  if (options.asJson) {
    return platform::encodeJson({{"apiURL", *payload.apiURL},
                                 {"file", platform::escapeForDisplay(file.string())},
                                 {"checked", options.checks}});
  }
  return "Configured " + platform::escapeForDisplay(*payload.apiURL) + " in " + quoted(file) +
         (options.checks ? ", and the service accepts the token." : ", unchecked.") +
         " It counts from the next request on.";
}

}  // namespace kestrune
