// Mounts a store in memory for the mount's tests: they run in another process than the host, as programs do in life, and
// say here what happens in the store.
//
//     fake_mount MOUNTPOINT REPLICA SIGNALFILE
//
// Reads commands from standard input, one JSON array a line (["putFile","/a.txt","text"]), and answers each with one line,
// {"value":…}. The first line, {"mounted":true}, says that the folder can be used. The end of the input does nothing: the
// host ends as every host does, by a signal or an unmount.
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include "host/MountHost.h"
#include "host/test/FakeRemote.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "platform/values/Json.h"

namespace {

namespace host = kestrune::host;
namespace platform = kestrune::platform;
using host::test::Ask;
using host::test::FakeRemote;
using platform::Json;

// A test that hangs in the mount cannot be killed while this process lives.
constexpr unsigned kLongestRunSeconds = 110;

void say(const Json& line) {
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  std::cout << platform::encodeJson(line) << std::endl;
}

Ask askNamed(const std::string& name) {
  if (name == "items") return Ask::items;
  if (name == "changes") return Ask::changes;
  if (name == "contents") return Ask::contents;
  throw std::invalid_argument("unknown question " + name);
}

Json changeStore(FakeRemote& remote, const std::string& verb, const Json& command) {
  const auto text = [&](std::size_t at) { return command.at(at).get<std::string>(); };
  if (verb == "putFile") return remote.putFile(text(1), text(2));
  if (verb == "putBigFile")
    return remote.putFile(text(1), std::string(command.at(2).get<std::size_t>(), 'x'));
  if (verb == "putFolder") return remote.putFolder(text(1));
  if (verb == "putFileListedAs") {
    remote.putFileListedAs(text(1), text(2), command.at(3).get<std::int64_t>());
  } else if (verb == "putManyFiles") {
    for (int i = 0; i < command.at(2).get<int>(); ++i)
      remote.putFile(text(1) + "/file" + std::to_string(i), "x");
  } else if (verb == "putItem") {
    host::test::RemoteItem item;
    item.name = text(2);
    item.contents = "x";
    if (command.size() > 3) item.listedSize = command.at(3).get<std::int64_t>();
    if (command.size() > 4)
      item.modified = platform::Date(std::chrono::seconds(command.at(4).get<std::int64_t>()));
    remote.putItem(text(1), item);
  } else if (verb == "overwrite") {
    remote.overwrite(text(1), text(2));
  } else if (verb == "remove") {
    remote.remove(text(1));
  } else if (verb == "rename") {
    remote.rename(text(1), text(2));
  } else {
    throw std::invalid_argument("unknown verb " + verb);
  }
  return nullptr;
}

Json obey(FakeRemote& remote, const Json& command) {
  const std::string verb = command.at(0);
  if (verb == "announce") {
    remote.announce();
  } else if (verb == "hold") {
    remote.hold(askNamed(command.at(1)), command.at(2));
  } else if (verb == "stopHolding") {
    remote.stopHolding(askNamed(command.at(1)), command.at(2));
  } else if (verb == "failWithServerUnreachable") {
    remote.failWith(
        askNamed(command.at(1)), command.at(2),
        platform::NSFileProviderError(platform::NSFileProviderError::serverUnreachable).share());
  } else if (verb == "asked") {
    return remote.asked(askNamed(command.at(1)), command.at(2));
  } else if (verb == "waitUntilAsked") {
    return remote.waitUntilAsked(askNamed(command.at(1)), command.at(2), command.at(3));
  } else {
    return changeStore(remote, verb, command);
  }
  return nullptr;
}

void readCommands(const std::shared_ptr<FakeRemote>& remote) {
  for (std::string line; std::getline(std::cin, line);) {
    try {
      say({{"value", obey(*remote, platform::decodeJson(line))}});
    } catch (const std::exception& error) {
      say({{"error", error.what()}});
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) return 2;
  ::alarm(kLongestRunSeconds);
  auto remote = std::make_shared<FakeRemote>();
  remote->setSignalFile(argv[3]);
  host::HostOptions options;
  options.mountPoint = argv[1];
  options.replicaDirectory = argv[2];
  options.signalFile = argv[3];
  // The host wants to be the first to start threads, so the commands are read once it runs.
  options.mounted = [remote] {
    say({{"mounted", true}});
    std::thread([remote] { readCommands(remote); }).detach();
  };
  try {
    host::runMountHost(options, [remote](const auto&) { return remote->makeExtension(); });
  } catch (const platform::NSError& error) {
    say({{"error", error.localizedDescription()}});
    return 1;
  }
  std::cout.flush();
  ::_exit(0);  // the reader of commands waits for input that may never end
}
