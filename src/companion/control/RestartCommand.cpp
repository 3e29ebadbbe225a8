#include "companion/control/RestartCommand.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>

#include "companion/configuration/CommandError.h"
#include "host/basics/LocalFile.h"
#include "platform/log/Log.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace {

using host::ControlClient;
using host::ControlRequest;
using platform::Json;

constexpr std::chrono::milliseconds kPause{20};
constexpr std::chrono::seconds kAnswerPatience{5};

struct About {
  std::string mountPoint;
  std::string version;
  std::uint64_t restarts = 0;
  std::int64_t standstillMilliseconds = 0;
  pid_t process = 0;
};

About askWho(ControlClient& client) {
  const Json json = client.ask(ControlRequest(), nullptr, kAnswerPatience);
  return {host::pathFromJson(json.value("mountPoint", Json(""))), json.value("version", ""),
          json.value("restarts", std::uint64_t{0}),
          json.value("standstillMilliseconds", std::int64_t{0}), json.value("process", 0)};
}

// None while nobody answers, as between the end of the one and the beginning of the other.
std::optional<About> whoAnswers(const HostFinder& finder, const RestartOptions& options,
                                const About& before) {
  try {
    return askWho(options.path.empty() ? *finder.ofDomain(options.domainIdentifier)
                                       : *finder.ofMount(before.mountPoint));
  } catch (const CommandError&) {
  } catch (const platform::NSError&) {
  }
  return std::nullopt;
}

// Sleeps for a moment; true if the host's process ends, also where nobody has noticed that yet. It is the same one before and after.
bool ends(const host::Descriptor& process) {
  pollfd polled = {process.number(), POLLIN, 0};
  return ::poll(&polled, 1, static_cast<int>(kPause.count())) > 0;
}

About waitForNext(const HostFinder& finder, const RestartOptions& options, const About& before,
                  const host::Descriptor& process) {
  const auto deadline = std::chrono::steady_clock::now() + options.patience;
  while (std::chrono::steady_clock::now() < deadline) {
    const auto now = whoAnswers(finder, options, before);
    if (now && now->restarts > before.restarts) return *now;
    if (ends(process)) {
      throw CommandError("The new program could not go on, and '" +
                         platform::escapeForDisplay(before.mountPoint) +
                         "' is not mounted any more. Why, it says where kestrune mount writes its "
                         "messages. Nothing is "
                         "lost: mount again with the program that works.");
    }
  }
  throw CommandError("The new host of '" + platform::escapeForDisplay(before.mountPoint) +
                     "' does not answer yet; it was waited for " +
                     std::to_string(options.patience.count()) +
                     " s. It may still; kestrune status tells when it does.");
}

}  // namespace

void restartHost(const HostFinder& finder, const RestartOptions& options, std::ostream& output) {
  About before;
  std::unique_ptr<host::Descriptor> process;
  try {
    const auto client = finder.of(options.path, options.domainIdentifier);
    before = askWho(*client);
    process = std::make_unique<host::Descriptor>(
        static_cast<int>(::syscall(SYS_pidfd_open, before.process, 0)));
    ControlRequest request;
    request.op = ControlRequest::Op::restart;
    client->ask(request);
  } catch (const host::ControlRefusal& error) {
    throw CommandError("The host was not replaced and goes on: " +
                       platform::escapeForDisplay(error.what()));
  } catch (const platform::NSError& error) {
    // The connection ends with the program that held it.
    if (!process)
      throw CommandError("Cannot ask the host: " + error.localizedDescription() +
                         ". It was not replaced; kestrune doctor tells more.");
  }
  const About now = waitForNext(finder, options, before, *process);
  if (options.asJson) {
    output << platform::encodeJson({{"mountPoint", host::pathToJson(now.mountPoint)},
                                    {"version", now.version},
                                    {"restarts", now.restarts},
                                    {"standstillMilliseconds", now.standstillMilliseconds}})
           << "\n";
    return;
  }
  char seconds[32];
  std::snprintf(&seconds[0], sizeof(seconds), "%.2f",
                static_cast<double>(now.standstillMilliseconds) / 1000);
  output << "Version " << now.version << " serves '" << platform::escapeForDisplay(now.mountPoint)
         << "' now; programs waited " << &seconds[0] << " s.\n";
}

}  // namespace kestrune
