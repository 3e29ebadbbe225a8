// `kestrune configure`: writes the shared configuration that the extension reads for each request,
// so a new address or token counts from the next request on.
//
// The file is replaced as a whole and readable for the user alone, and so is its directory. The
// token comes from a file or from standard input: an argument list can be read by every process of
// the machine. It is never printed.
//
// Threads: one. Fails: CommandError; the earlier configuration then stays as it was.
#pragma once

#include <istream>
#include <optional>
#include <string>
#include <string_view>

#include "platform/values/Secret.h"

namespace kestrune {

struct ConfigureOptions {
  std::string url;
  std::string tokenFile;  // "-": standard input
  /// A token that was asked for; counts before `tokenFile`.
  std::optional<std::string> typedToken = std::nullopt;
  /// Whether the service is asked first, by listing its root (ServiceProbe.h). Nothing is written where that fails.
  bool checks = false;
  /// For programs: {"apiURL":"…","file":"…","checked":true}.
  bool asJson = false;
};

/// Returns what to tell the user.
std::string configure(const ConfigureOptions& options, std::istream& standardInput);

/// The address as it is configured: request paths are appended to it, so slashes at its end are
/// dropped. Throws CommandError unless it is an absolute http or https address without credentials,
/// query and fragment.
std::string checkedServiceAddress(std::string_view text);

/// The token in `text`: white space around it is dropped. Throws CommandError if nothing is left or
/// it holds what cannot stand in a header; the text itself is not quoted. `source` is for the
/// message.
platform::Secret checkedToken(std::string_view text, const std::string& source);

}  // namespace kestrune
