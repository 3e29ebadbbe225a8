// The program `kestrune`: reads its command line, hands over to the command, and turns failures
// into exit codes.

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "companion/ConfigureDialog.h"
#include "companion/ConsoleCommand.h"
#include "companion/DoctorCommand.h"
#include "companion/ListCommands.h"
#include "companion/MountCommand.h"
#include "companion/ReportCommand.h"
#include "companion/configuration/CommandError.h"
#include "companion/configuration/ConfigureCommand.h"
#include "companion/configuration/InvalidateCommand.h"
#include "companion/control/ControlCommands.h"
#include "companion/control/RestartCommand.h"
#include "companion/control/UnmountCommand.h"
#include "companion/terminal/Prompt.h"
#include "companion/terminal/Signals.h"
#include "companion/watch/DownloadProgress.h"
#include "companion/watch/WatchCommand.h"
#include "host/front/InheritedMount.h"
#include "platform/values/Allocator.h"
#include "status/SyncStatusStore.h"

namespace {

using namespace kestrune;

constexpr int kFailure = 1;
constexpr int kUsage = 2;

constexpr const char* kFooter =
    "Examples:\n"
    "  kestrune configure --url https://files.example.org --token-file ~/token\n"
    "  kestrune mount ~/Kestrune\n"
    "  kestrune ls -l /Docs\n"
    "  kestrune cat /Docs/a.pdf >a.pdf\n"
    "  kestrune status\n"
    "  kestrune sync --wait ~/Kestrune/Docs\n"
    "  kestrune pin ~/Kestrune/Docs/a.pdf\n"
    "  kestrune why ~/Kestrune/Docs/a.pdf\n"
    "  kestrune invalidate\n"
    "  kestrune restart\n"
    "  kestrune unmount\n"
    "  kestrune doctor\n"
    "  kestrune report\n"
    "  echo '{\"id\":1,\"op\":\"enumerateItems\",\"container\":\"/Docs\"}' | kestrune console\n"
    "\n"
    "Files lie below $XDG_DATA_HOME/Kestrune (or ~/.local/share/Kestrune).\n"
    "Exit codes: 0 done, 1 failed (standard error says why), 2 wrong usage, 128 + N ended by the\n"
    "signal N (130: Ctrl-C). With --json: docs/formats/json-output.md. More: man kestrune.";

/// The token passes through this process's memory: no core dump, and no other process of the user
/// may look inside.
void protectMemory() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
#ifndef KESTRUNE_SANITIZED  // The leak check traces its own process.
  prctl(PR_SET_DUMPABLE, 0);
#endif
}

/// A standard descriptor that the caller has closed would go to the next file or socket opened, and
/// output would land there.
void occupyStandardDescriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) < 0) ::open("/dev/null", O_RDWR);  // takes the lowest free one
  }
}

/// Returns the exit code.
using Command = std::function<int()>;

/// A command that does not fail is done.
template <class Work>
Command finishing(Work work) {
  return [work = std::move(work)] {
    work();
    return 0;
  };
}

void addConfigure(CLI::App& app, Command& chosen) {
  auto* command = app.add_subcommand("configure", "Write the address of the service and the token");
  auto options = std::make_shared<ConfigureOptions>();
  command->add_option("--url", options->url,
                      "the service's address, as in https://files.example.org; default: asks");
  command->add_option("--token-file", options->tokenFile,
                      "the file that holds the token, - for standard input; default: asks");
  auto unchecked = std::make_shared<bool>(false);
  command->add_flag("--no-check", *unchecked, "write it without asking the service first");
  command->add_flag("--json", options->asJson, "for programs: JSON, one object a line");
  command->callback([&chosen, options, unchecked] {
    options->checks = !*unchecked;
    if (!mayAsk() && options->url.empty()) throw CLI::RequiredError("--url");
    if (!mayAsk() && options->tokenFile.empty()) throw CLI::RequiredError("--token-file");
    chosen = finishing([options] { std::cout << configureByDialog(*options, std::cin) << "\n"; });
  });
}

void addInvalidate(CLI::App& app, Command& chosen) {
  auto* command = app.add_subcommand(
      "invalidate", "Have all folders listed again when their changes are asked for");
  auto asJson = std::make_shared<bool>(false);
  command->add_flag("--json", *asJson, "for programs: JSON, one object a line");
  command->callback([&chosen, asJson] {
    chosen = finishing([asJson] { std::cout << writeInvalidationToken(*asJson) << "\n"; });
  });
}

/// What `kestrune mount` needs to know of the process.
struct Process {
  host::ProgramStart program;
  host::InheritedMount& inherited;
};

void addMount(CLI::App& app, Command& chosen, const Process& process) {
  auto* command = app.add_subcommand("mount", "Show the store as a folder, until Ctrl-C");
  auto options = std::make_shared<MountOptions>();
  command->add_option("MOUNTPOINT", options->mountPoint, "an empty folder")->required();
  command->add_option("--replica", options->replicaDirectory,
                      "where fetched contents are kept; default: below the shared directory");
  command->add_option("--domain", options->domainIdentifier, "the domain's identifier")
      ->capture_default_str();
  command
      ->add_option("--refresh", options->refreshSeconds,
                   "seconds between looks for changes, where the service does not tell of them")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{86'400}))
      ->capture_default_str();
  command
      ->add_option("--cache-size", options->cacheBytes,
                   "how much fetched contents may take here, in bytes or with K, M, G; default: no "
                   "limit")
      ->transform(CLI::AsSizeValue(false));
  command
      ->add_option("--keep-free", options->keepFreeBytes,
                   "how much of the disk is to stay free; default: a twentieth, 10G at most")
      ->transform(CLI::AsSizeValue(false));
  command->add_flag("--in-one-process", options->inOneProcess,
                    "run the extension within the host, without a sandbox (to look for faults)");
  command->add_flag("--json", options->asJson, "for programs: JSON, one object a line");
  command->add_flag("--allow-other", options->allowOtherUsers,
                    "let other users look inside (needs user_allow_other in /etc/fuse.conf)");
  options->version = KESTRUNE_VERSION;
  options->program = process.program;
  options->inherited = &process.inherited;
  command->callback([&chosen, options] { chosen = finishing([options] { runMount(*options); }); });
}

void addList(CLI::App& app, Command& chosen) {
  auto* command = app.add_subcommand("ls", "List a folder of the store, without a mount");
  auto options = std::make_shared<ListOptions>();
  command->add_option("PATH", options->path, "as in /Docs")->capture_default_str();
  command->add_flag("-l", options->isLong, "also sizes and times");
  command->add_flag("--json", options->asJson, "for programs: JSON, one object a line");
  command->callback([&chosen, options] {
    options->escapesNames = ::isatty(STDOUT_FILENO) != 0;
    chosen = finishing([options] { runList(*options); });
  });
}

void addCat(CLI::App& app, Command& chosen) {
  auto* command = app.add_subcommand("cat", "Print a file of the store, without a mount");
  auto path = std::make_shared<std::string>();
  command->add_option("PATH", *path, "as in /Docs/a.pdf")->required();
  command->callback([&chosen, path] { chosen = finishing([path] { runCat(*path); }); });
}

// For shells; not shown to people.
void addCompletePath(CLI::App& app, Command& chosen) {
  auto* command = app.add_subcommand("complete-path", "Print what can follow a remote path");
  command->group("");
  auto word = std::make_shared<std::string>();
  command->add_option("WORD", *word, "what was typed");
  command->callback([&chosen, word] { chosen = finishing([word] { runCompletePath(*word); }); });
}

void addConsole(CLI::App& app, Command& chosen) {
  auto* command =
      app.add_subcommand("console", "Make calls to the extension: JSON lines in, JSON lines out");
  auto options = std::make_shared<ConsoleOptions>();
  command->add_option("--domain", options->domainIdentifier, "the domain's identifier")
      ->capture_default_str();
  command->add_flag("--show-private", options->showsPrivateArguments,
                    "print the private arguments of log lines too");
  command->footer("docs/console.md describes the calls and the lines.");
  command->callback(
      [&chosen, options] { chosen = finishing([options] { runConsole(*options); }); });
}

using Op = host::ControlRequest::Op;

/// What all commands to a running host have in common.
CLI::App* addControl(CLI::App& app, Command& chosen, const std::shared_ptr<ControlCommand>& control,
                     const char* name, const char* description) {
  auto* command = app.add_subcommand(name, description);
  command->add_flag("--json", control->asJson, "for programs: JSON, one object a line");
  command->callback(
      [&chosen, control] { chosen = finishing([control] { runControl(*control); }); });
  return command;
}

void addDomainControl(CLI::App& app, Command& chosen, Op op, const char* name,
                      const char* description) {
  auto control = std::make_shared<ControlCommand>();
  control->op = op;
  addControl(app, chosen, control, name, description)
      ->add_option("--domain", control->domainIdentifier, "the domain's identifier")
      ->capture_default_str();
}

void addItemControl(CLI::App& app, Command& chosen, Op op, const char* name,
                    const char* description) {
  auto control = std::make_shared<ControlCommand>();
  control->op = op;
  auto* command = addControl(app, chosen, control, name, description);
  command->add_option("PATH", control->paths, "files and folders in the mounted folder")
      ->required();
  if (op != Op::download) return;
  command->callback([&chosen, control] {
    chosen = finishing([control] { showingDownloads([control] { runControl(*control); }); });
  });
}

void addStatus(CLI::App& app, Command& chosen) {
  auto control = std::make_shared<ControlCommand>();
  control->op = Op::status;
  auto* command = addControl(app, chosen, control, "status", "Show how a mounted folder is doing");
  auto path = std::make_shared<std::string>();
  command->add_option("PATH", *path, "in the mounted folder; default: the domain's");
  command->add_option("--domain", control->domainIdentifier, "the domain, where there is no PATH")
      ->capture_default_str();
  auto watches = std::make_shared<bool>(false);
  command->add_flag("--watch,-w", *watches, "until Ctrl-C, with transfers and what waits");
  command->callback([&chosen, control, watches, path] {
    if (!path->empty()) control->paths = {*path};
    chosen = [control, watches, path] {
      if (*watches)
        return runWatch(HostFinder::here(), {*path, control->domainIdentifier, control->asJson});
      runControl(*control);
      return 0;
    };
  });
}

void addPending(CLI::App& app, Command& chosen) {
  auto control = std::make_shared<ControlCommand>();
  control->op = Op::pending;
  auto* command = addControl(app, chosen, control, "pending",
                             "Show what was changed here and is not at the store yet");
  command->add_option("PATH", control->paths, "only what lies there; default: all of the domain");
  command->add_option("--domain", control->domainIdentifier, "the domain, where there is no PATH")
      ->capture_default_str();
  command->add_option("--most", control->most, "how many changes are shown")
      ->check(CLI::Range(std::size_t{0}, host::ControlRequest::kMostChanges))
      ->capture_default_str();
}

void addSync(CLI::App& app, Command& chosen) {
  auto control = std::make_shared<ControlCommand>();
  control->op = Op::sync;
  auto* command = addControl(app, chosen, control, "sync",
                             "Send what was changed here now, whatever failed before");
  command->add_option("PATH", control->paths, "files and folders in the mounted folder")
      ->required();
  command->add_flag("--wait", control->waits, "until all of it is at the store");
  auto seconds = std::make_shared<std::int64_t>(control->timeout.count());
  command->add_option("--timeout", *seconds, "seconds to wait at most")
      ->check(CLI::Range(std::int64_t{0}, host::ControlRequest::kLongestTimeout.count()))
      ->capture_default_str();
  command->callback([&chosen, control, seconds] {
    control->timeout = std::chrono::seconds(*seconds);
    chosen = finishing([control] { runControl(*control); });
  });
}

void addRestart(CLI::App& app, Command& chosen) {
  auto* command = app.add_subcommand(
      "restart", "Replace a running mount's program by the one that is installed now");
  auto options = std::make_shared<RestartOptions>();
  command->add_option("PATH", options->path, "in the mounted folder; default: the domain's");
  command->add_option("--domain", options->domainIdentifier, "the domain, where there is no PATH")
      ->capture_default_str();
  command->add_flag("--json", options->asJson, "for programs: JSON, one object a line");
  command->callback([&chosen, options] {
    chosen = finishing([options] { restartHost(HostFinder::here(), *options, std::cout); });
  });
}

void addUnmount(CLI::App& app, Command& chosen) {
  auto* command = app.add_subcommand("unmount", "End a running mount; nothing is lost by that");
  auto options = std::make_shared<UnmountOptions>();
  command->add_option("PATH", options->path, "in the mounted folder; default: the domain's");
  command->add_option("--domain", options->domainIdentifier, "the domain, where there is no PATH")
      ->capture_default_str();
  command->add_flag("--force", options->isForced,
                    "also where changes are not at the store yet; they stay in the replica");
  command->add_flag("--json", options->asJson, "for programs: JSON, one object a line");
  command->callback([&chosen, options] {
    chosen = finishing([options] { unmountHost(HostFinder::here(), *options, std::cout); });
  });
}

void addReport(CLI::App& app, Command& chosen, const host::ProgramStart& program) {
  auto* command = app.add_subcommand(
      "report", "Write what helps to find a fault into a file, without names or the token");
  auto options = std::make_shared<ReportOptions>();
  options->version = KESTRUNE_VERSION;
  options->program = program;
  command->add_option("PATH", options->path, "in the mounted folder; default: the domain's");
  command->add_option("--domain", options->domainIdentifier, "the domain, where there is no PATH")
      ->capture_default_str();
  command->add_option("--replica", options->replicaDirectory,
                      "as it was given to mount, where no host runs");
  command->add_option("--output,-o", options->output,
                      "the file; default: kestrune-report-TIME.tar.gz in this directory");
  command->add_flag("--with-names", options->withNames,
                    "with names of files and the service's address, still without the token");
  auto prints = std::make_shared<bool>(false);
  auto* print = command->add_flag("--print", *prints, "print a page for people, write no file");
  command->add_flag("--json", options->asJson, "for programs: JSON, one object a line")
      ->excludes(print);
  command->callback([&chosen, options, prints] {
    chosen = finishing([options, prints] {
      if (*prints) return printReport(HostFinder::here(), *options, std::cout);
      writeReport(HostFinder::here(), *options, std::cout);
    });
  });
}

void addDoctor(CLI::App& app, Command& chosen, const host::ProgramStart& program) {
  auto* command =
      app.add_subcommand("doctor", "Check everything that mounts stand on, and say what to do");
  auto options = std::make_shared<DoctorOptions>();
  options->program = program;
  command->add_option("--domain", options->domainIdentifier, "the domain's identifier")
      ->capture_default_str();
  command->add_option("--replica", options->replicaDirectory,
                      "as it was given to mount (otherwise those of the hosts that run)");
  command->add_flag("--json", options->asJson, "for programs: JSON, one object a line");
  command->callback(
      [&chosen, options] { chosen = [options] { return runDoctor(*options) ? 0 : kFailure; }; });
}

void addControls(CLI::App& app, Command& chosen) {
  addStatus(app, chosen);
  addPending(app, chosen);
  addSync(app, chosen);
  addItemControl(app, chosen, Op::pin, "pin", "Keep items on this machine");
  addItemControl(app, chosen, Op::unpin, "unpin", "No longer keep items on this machine");
  addItemControl(app, chosen, Op::evict, "evict", "Remove contents from this machine, not items");
  addItemControl(app, chosen, Op::download, "download", "Fetch contents now");
  addItemControl(app, chosen, Op::link, "link", "Print links to items, for others");
  addItemControl(app, chosen, Op::state, "state", "Show what of items is on this machine");
  addItemControl(app, chosen, Op::why, "why",
                 "Explain why items are on this machine or not, and what they wait for");
  addDomainControl(app, chosen, Op::allowDeletions, "allow-deletions",
                   "Carry out the deletions that the host holds back");
  addDomainControl(app, chosen, Op::keepDeleted, "keep-deleted",
                   "Keep what the host has not deleted yet, and send it to the store again");
}

int run(int argc, char** argv, host::InheritedMount& inherited) {
  CLI::App app("Kestrune: a remote file store as a folder.", "kestrune");
  app.footer(kFooter);
  app.set_version_flag("--version", "kestrune " KESTRUNE_VERSION);
  app.require_subcommand(1);
  Command chosen;
  addConfigure(app, chosen);
  addInvalidate(app, chosen);
  const host::ProgramStart program = host::presentProgram({argv, argv + argc});
  addMount(app, chosen, {program, inherited});
  addList(app, chosen);
  addCat(app, chosen);
  addConsole(app, chosen);
  addCompletePath(app, chosen);
  addControls(app, chosen);
  addRestart(app, chosen);
  addUnmount(app, chosen);
  addDoctor(app, chosen, program);
  addReport(app, chosen, program);
  for (CLI::App* command : app.get_subcommands({})) {
    if (command->get_name() != "console")
      command->footer("More: man kestrune-" + command->get_name());
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : kUsage;
  }
  const int code = chosen();
  std::cout.flush();
  if (!std::cout) throw CommandError("Cannot write to standard output.");
  return code;
}

/// Tasks that nobody waits for may still run: no static object is destroyed under them. What they
/// have recorded is written first.
int end(int code) {
  SyncStatusStore::shared().drain();
  std::cout.flush();
  std::fflush(nullptr);
#ifndef KESTRUNE_SANITIZED  // The leak check comes with the ordinary end.
  std::_Exit(code);
#endif
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  platform::keepFreedMemory();
  protectMemory();
  occupyStandardDescriptors();
  host::InheritedMount inherited;
  int code = kFailure;
  try {
    code = run(argc, argv, inherited);
  } catch (const Interrupted& interruption) {
    code = exitCodeOf(interruption.signal());
  } catch (const std::exception& error) {
    std::fprintf(stderr, "kestrune: %s\n", error.what());
  }
  inherited.abandon();
  return end(code);
}
