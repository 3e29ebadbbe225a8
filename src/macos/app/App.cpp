#include "macos/app/App.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <string>

#include "companion/configuration/CommandError.h"
#include "companion/configuration/ConfigureCommand.h"
#include "companion/configuration/InvalidateCommand.h"
#include "macos/app/Domain.h"
#include "platform/log/Log.h"

namespace kestrune::macos {

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

constexpr const char* kFooter =
    "The first time:\n"
    "  Kestrune.app/Contents/MacOS/Kestrune configure --url https://files.example.org --token-file "
    "~/token\n"
    "  Kestrune.app/Contents/MacOS/Kestrune add\n"
    "Then \"Kestrune\" stands in the Finder's sidebar. Files lie below ~/Library/Application "
    "Support/Kestrune.\n"
    "Exit codes: 0 done, 1 failed (standard error says why), 2 wrong usage.";

using Command = std::function<std::string()>;  // returns what to tell the user

/// `error` as the end of a command. Texts of the system are shown as they stand.
void throwIfFailed(const platform::NSErrorPtr& error, const std::string& whatFailed,
                   const std::string& whatToDo) {
  if (!error) return;
  throw CommandError(whatFailed + ": " + platform::escapeForDisplay(error->localizedDescription()) +
                     " (" + error->domain() + " " + std::to_string(error->code()) + "). " +
                     whatToDo);
}

std::string add() {
  throwIfFailed(addDomain(), "The folder could not be added",
                "Is Kestrune.app in /Applications, and its extension allowed in System Settings "
                "(Login Items & Extensions; on macOS 13 and 14 Privacy & Security, Extensions)?");
  return "Added. \"Kestrune\" stands in the Finder's sidebar.";
}

std::string remove() {
  throwIfFailed(
      removeDomain(), "The folder could not be removed",
      "What is not uploaded yet may hold it; try again when the Finder shows no transfer.");
  return "Removed. The remote store is as it was.";
}

std::string refresh() {
  std::string written = writeInvalidationToken();
  throwIfFailed(signalWorkingSet(), "The system could not be told of the change",
                "Run `Kestrune add` first if the folder is not in the Finder's sidebar.");
  return written;
}

void addCommands(CLI::App& app, std::istream& input, Command& chosen) {
  auto* configureCommand =
      app.add_subcommand("configure", "Write the address of the service and the token");
  const auto options = std::make_shared<ConfigureOptions>();
  configureCommand
      ->add_option("--url", options->url, "the service's address, as in https://files.example.org")
      ->required();
  configureCommand
      ->add_option("--token-file", options->tokenFile,
                   "the file that holds the token; - for standard input")
      ->required();
  configureCommand->callback([&chosen, &input, options] {
    chosen = [&input, options] { return configure(*options, input); };
  });
  app.add_subcommand("add", "Show the store as a folder in the Finder")->callback([&chosen] {
    chosen = add;
  });
  app.add_subcommand("remove", "Take the folder away, with all that is local of it")
      ->callback([&chosen] { chosen = remove; });
  app.add_subcommand("refresh", "Have the folders listed again when their changes are asked for")
      ->callback([&chosen] { chosen = refresh; });
}

}  // namespace

int runApp(int argc, const char* const* argv, std::istream& input, std::ostream& output,
           std::ostream& errors) {
  CLI::App app("Kestrune: a remote file store as a folder in the Finder.", "Kestrune");
  app.footer(kFooter);
  app.require_subcommand(1);
  Command chosen;
  addCommands(app, input, chosen);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error, output, errors) == 0 ? 0 : kUsage;
  }
  try {
    output << chosen() << "\n";
  } catch (const std::exception& error) {
    errors << "Kestrune: " << error.what() << "\n";
    return kFailure;
  }
  return 0;
}

}  // namespace kestrune::macos
