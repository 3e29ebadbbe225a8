// Mounts a tree in memory for the tests of the mount's front, in a process of its own.
//
//     front_mount MOUNTPOINT OBJECTS [--xattr] [--allow-other]
//
// Commands and answers as in FakeMountMain.cpp.
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <iostream>
#include <string>
#include <string_view>
#include <thread>

#include "host/front/FuseKernelCache.h"
#include "host/front/MountSession.h"
#include "platform/values/Json.h"
#include "tests/mount/FrontTree.h"

namespace {

namespace host = kestrune::host;
using kestrune::mounttest::FrontTree;
using kestrune::platform::Json;

// A test that hangs in the mount cannot be killed while this process lives.
constexpr unsigned kLongestRunSeconds = 300;

Json obey(FrontTree& tree, const host::FuseFront& front, const Json& command) {
  const std::string verb = command.at(0);
  if (verb == "asked") return tree.asked(command.at(1));
  if (verb == "openFiles") return tree.openFiles();
  if (verb == "references") return tree.references();
  if (verb == "successors") return tree.successors();
  if (verb == "passthroughInUse") return front.passthroughInUse();
  if (verb == "hold") {
    tree.hold(command.at(1));
  } else if (verb == "letGo") {
    tree.letGo(command.at(1));
  } else if (verb == "answerLater") {
    tree.answerLater(command.at(1));
  } else if (verb == "sayWhole") {
    tree.sayWhole(command.at(1));
  } else if (verb == "makeUnseen") {
    tree.makeUnseen(command.at(1), command.at(2));
  } else {
    throw std::invalid_argument("unknown verb " + verb);
  }
  return nullptr;
}

void readCommands(FrontTree& tree, const host::FuseFront& front) {
  std::cout << R"({"mounted":true})" << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    Json answer;
    try {
      answer = {{"value", obey(tree, front, kestrune::platform::decodeJson(line))}};
    } catch (const std::exception& error) {
      answer = {{"error", error.what()}};
    }
    std::cout << kestrune::platform::encodeJson(answer) << std::endl;
  }
}

int endSignal() {
  sigset_t signals;
  ::sigemptyset(&signals);
  ::sigaddset(&signals, SIGTERM);
  ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return ::signalfd(-1, &signals, SFD_CLOEXEC);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  ::alarm(kLongestRunSeconds);
  const int ending = endSignal();
  host::MountSettings settings;
  settings.mountPoint = argv[1];
  settings.writable = true;
  for (int i = 3; i < argc; ++i) {
    const std::string_view option = argv[i];
    settings.extendedAttributes |= option == "--xattr";
    settings.allowOtherUsers |= option == "--allow-other";
  }
  FrontTree tree(argv[2]);
  auto kernel = std::make_shared<host::FuseKernelCache>();
  host::FuseFront front(tree, kernel);
  host::MountSession session(front, settings);
  kernel->attach(session.kernelSession());
  session.start();
  std::thread(readCommands, std::ref(tree), std::cref(front)).detach();
  std::array<pollfd, 2> polled = {pollfd{ending, POLLIN, 0},
                                  pollfd{session.endedDescriptor(), POLLIN, 0}};
  ::poll(polled.data(), polled.size(), -1);
  front.endAll();
  kernel->detach();
  session.stop();
  ::umount2(argv[1], 0);
  std::cout.flush();
  ::_exit(0);  // the reader of commands waits for input that may never end
}
