#include "companion/control/ControlCommands.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <memory>
#include <utility>

#include "companion/configuration/CommandError.h"
#include "host/control/ControlClient.h"
#include "platform/log/Log.h"
#include "platform/values/NSError.h"

namespace kestrune {

using host::ControlClient;
using host::ControlRequest;
using platform::Json;
using Op = ControlRequest::Op;

namespace {

/// So many paths go in one request: with the longest of names it stays below the longest line.
constexpr std::size_t kPathsAtOnce = 40;

std::string inQuotes(const std::string& path) {
  return "'" + platform::escapeForDisplay(path) + "'";
}

std::string sentence(const std::string& text) {
  return platform::escapeForDisplay(text) + (text.ends_with('.') ? "" : ".");
}

/// What could not be done, gathered so that one path does not keep the others from being treated.
class Failures {
 public:
  void add(const std::string& text) {
    if (!texts_.empty()) texts_ += "\nkestrune: ";
    texts_ += text;
  }
  void raise() const {
    if (!texts_.empty()) throw CommandError(texts_);
  }

 private:
  std::string texts_;
};

Json ask(ControlClient& client, const ControlRequest& request,
         const ControlClient::Progress& progress = nullptr) {
  try {
    return client.ask(request, progress);
  } catch (const host::ControlRefusal& error) {
    throw CommandError(sentence(error.what()));
  } catch (const platform::NSError& error) {
    throw CommandError("The host has gone away: " + sentence(error.localizedDescription()) +
                       " What is not sent is kept; kestrune mount goes on with it.");
  }
}

void put(const ControlOutput& output, const Json& json) {
  output.stream << platform::encodeJson(json) << "\n";
}

/// The paths that were given, each with its host. A host is asked on one connection.
class Hosts {
 public:
  explicit Hosts(const HostFinder& finder) : finder_(finder) {}
  ControlClient& of(const PlaceInMount& place) {
    auto& client = clients_[place.mountPoint];
    if (!client) client = finder_.ofMount(place.mountPoint);
    return *client;
  }

 private:
  const HostFinder& finder_;
  std::map<std::filesystem::path, std::unique_ptr<ControlClient>> clients_;
};

// ---- commands on a whole domain

void runForDomain(const HostFinder& finder, const ControlCommand& command,
                  const ControlOutput& output) {
  ControlRequest request;
  request.op = command.op;
  request.most = command.most;
  const auto client =
      finder.of(command.paths.empty() ? "" : command.paths.front(), command.domainIdentifier);
  const Json result = ask(*client, request);
  if (output.asJson) return put(output, result);
  const std::uint64_t count = result.value("count", std::uint64_t{0});
  switch (command.op) {
    case Op::status:
      output.stream << statusText(result, output.escaping);
      return;
    case Op::pending:
      output.stream << pendingText(result, output.escaping);
      return;
    case Op::allowDeletions:
      output.stream << count << (count == 1 ? " deletion is" : " deletions are")
                    << " carried out.\n";
      return;
    default:
      output.stream << count << (count == 1 ? " item is" : " items are")
                    << " kept and sent to the store again.\n";
  }
}

// ---- pending and sync, of paths

void runForPlace(ControlClient& client, const std::string& given, const ControlRequest& request,
                 const ControlOutput& output) {
  const auto progress = [&output, &given](const Json& line) {
    if (output.progress == nullptr) return;
    const auto left = line.value("left", std::uint64_t{0});
    *output.progress << inQuotes(given) << ": " << left
                     << (left == 1 ? " change left\n" : " changes left\n");
  };
  Json result = ask(client, request, progress);
  const std::uint64_t left = result.value("count", std::uint64_t{0});
  if (output.asJson) {
    result["path"] = host::pathToJson(given);
    put(output, result);
  } else if (request.op == Op::pending) {
    output.stream << pendingText(result, output.escaping);
  } else if (left == 0) {
    output.stream << escapedText(given, output.escaping) << ": everything is at the store.\n";
  } else if (!request.waits) {
    output.stream << escapedText(given, output.escaping) << ": " << left
                  << (left == 1 ? " change is on its" : " changes are on their")
                  << " way; kestrune sync --wait waits for that.\n";
  }
  if (request.op == Op::sync && request.waits && left > 0) {
    std::string text = inQuotes(given) + " is not at the store yet:\n" +
                       pendingText(result, Escaping::forTerminal);
    text.pop_back();
    throw CommandError(text);
  }
}

void runForPlaces(const HostFinder& finder, const ControlCommand& command,
                  const ControlOutput& output) {
  Hosts hosts(finder);
  Failures failures;
  const auto deadline = std::chrono::steady_clock::now() + command.timeout;
  for (const std::string& given : command.paths) {
    try {
      const PlaceInMount place = finder.place(given);
      ControlRequest request;
      request.op = command.op;
      request.path = place.path;
      request.most = command.most;
      request.waits = command.waits;
      // One limit for all paths together.
      request.timeout = std::max(
          std::chrono::ceil<std::chrono::seconds>(deadline - std::chrono::steady_clock::now()),
          std::chrono::seconds(0));
      runForPlace(hosts.of(place), given, request, output);
    } catch (const CommandError& error) {
      failures.add(error.what());
    }
  }
  failures.raise();
}

// ---- what is done to items

const char* verbOf(Op op) {
  switch (op) {
    case Op::pin:
      return "pin";
    case Op::unpin:
      return "unpin";
    case Op::evict:
      return "evict";
    case Op::download:
      return "download";
    case Op::link:
      return "make a link to";
    case Op::why:
      return "explain";
    default:
      return "tell the state of";
  }
}

/// Paths of one host that are asked for together.
struct Batch {
  std::vector<std::string> given;
  std::vector<std::string> paths;
};

void tellItem(const std::string& given, Json answer, Op op, const ControlOutput& output,
              Failures& failures) {
  const bool failed = answer.contains("error");
  if (failed) {
    failures.add("Cannot " + std::string(verbOf(op)) + " " + inQuotes(given) + ": " +
                 sentence(answer.value("error", "")));
  }
  if (output.asJson) {
    answer["path"] = host::pathToJson(given);
    return put(output, answer);
  }
  if (failed) return;
  if (op == Op::link) {
    output.stream << escapedText(answer.at("result").get<std::string>(), output.escaping) << "\n";
  } else if (op == Op::state) {
    output.stream << escapedText(given, output.escaping) << ": "
                  << stateText(answer.at("result"), output.escaping) << "\n";
  } else if (op == Op::why) {
    output.stream << escapedText(given, output.escaping) << ":\n"
                  << reasonsText(answer.at("result"), output.escaping);
  }
}

void runBatch(ControlClient& client, const Batch& batch, Op op, const ControlOutput& output,
              Failures& failures) {
  ControlRequest request;
  request.op = op;
  request.paths = batch.paths;
  Json results = ask(client, request);
  for (std::size_t i = 0; i < batch.given.size(); ++i) {
    tellItem(batch.given[i], std::move(results.at(i)), op, output, failures);
  }
}

void runForItems(const HostFinder& finder, const ControlCommand& command,
                 const ControlOutput& output) {
  Hosts hosts(finder);
  Failures failures;
  for (std::size_t next = 0; next < command.paths.size();) {
    Batch batch;
    PlaceInMount first;
    // As many of the following paths as lie in the same mount.
    for (; next < command.paths.size() && batch.paths.size() < kPathsAtOnce; ++next) {
      try {
        PlaceInMount place = finder.place(command.paths[next]);
        if (!batch.paths.empty() && place.mountPoint != first.mountPoint) break;
        if (batch.paths.empty()) first = place;
        batch.given.push_back(command.paths[next]);
        batch.paths.push_back(std::move(place.path));
      } catch (const CommandError& error) {
        failures.add(error.what());
      }
    }
    if (batch.paths.empty()) continue;
    try {
      runBatch(hosts.of(first), batch, command.op, output, failures);
    } catch (const CommandError& error) {
      failures.add(error.what());
    }
  }
  failures.raise();
}

}  // namespace

void runControl(const HostFinder& finder, const ControlCommand& command,
                const ControlOutput& output) {
  switch (command.op) {
    case Op::about:
    case Op::status:
    case Op::allowDeletions:
    case Op::keepDeleted:
    case Op::log:
    case Op::end:      // UnmountCommand.h
    case Op::restart:  // whose host is another afterwards: RestartCommand.h
      return runForDomain(finder, command, output);
    case Op::pending:
    case Op::sync:
      return command.paths.empty() ? runForDomain(finder, command, output)
                                   : runForPlaces(finder, command, output);
    case Op::pin:
    case Op::unpin:
    case Op::evict:
    case Op::download:
    case Op::link:
    case Op::state:
    case Op::why:
      return runForItems(finder, command, output);
  }
}

void runControl(const ControlCommand& command) {
  const Escaping escaping = ::isatty(STDOUT_FILENO) != 0 ? Escaping::forTerminal : Escaping::none;
  std::ostream* progress = ::isatty(STDERR_FILENO) != 0 ? &std::cerr : nullptr;
  runControl(HostFinder::here(), command, {std::cout, escaping, command.asJson, progress});
}

}  // namespace kestrune
