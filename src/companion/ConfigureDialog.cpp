#include "companion/ConfigureDialog.h"

#include <unistd.h>

#include <utility>

#include "companion/configuration/CommandError.h"
#include "companion/terminal/Prompt.h"
#include "platform/values/NSError.h"

namespace kestrune {

bool mayAsk() { return ::isatty(STDIN_FILENO) != 0; }

std::string configureByDialog(ConfigureOptions options, std::istream& standardInput) {
  try {
    if (options.url.empty()) {
      options.url =
          askAtTerminal("Address of the service, as in https://files.example.org: ", Echo::shown);
      checkedServiceAddress(options.url);  // before the token is asked for
    }
    if (options.tokenFile.empty())
      options.typedToken = askAtTerminal("Token (it is not shown): ", Echo::hidden);
  } catch (const platform::NSError& error) {
    throw CommandError("Cannot ask: " + error.localizedDescription() +
                       ". Give the address with --url and the token with --token-file.");
  }
  return configure(options, standardInput);
}

}  // namespace kestrune
