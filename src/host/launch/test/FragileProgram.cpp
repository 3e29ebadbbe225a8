// A program as the launcher starts it, whose extension does what it is asked to: fragile_program [MODE]. Modes: crash, exit and
// silent (at the start), other-version, less (offers no more than it must), hang (at the end).
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <future>
#include <string_view>
#include <thread>

#include "boundary/ExtensionServer.h"
#include "boundary/Protocol.h"
#include "boundary/Wire.h"
#include "platform/file_provider/ContentStreaming.h"
#include "platform/values/NSError.h"

namespace {

using namespace kestrune::platform;  // NOLINT(google-build-using-namespace): a main program
namespace boundary = kestrune::boundary;
using Url = std::optional<std::filesystem::path>;

// As the host gives them (host/launch/Program.h).
constexpr int kSocket = 3;
constexpr int kReport = 4;

[[noreturn]] void sleepForEver() {
  for (;;) ::pause();
}

// What this program found when it began, a line each.
std::string surroundings() {
  std::string text = "descriptors:";
  for (int descriptor = 0; descriptor < 1024; ++descriptor)
    if (::fcntl(descriptor, F_GETFD) >= 0) text += " " + std::to_string(descriptor);
  struct stat input {};
  ::fstat(STDIN_FILENO, &input);
  struct stat nothing {};
  ::stat("/dev/null", &nothing);
  text += input.st_rdev == nothing.st_rdev ? "\ninput: empty" : "\ninput: another";
  sigset_t blocked;
  ::sigprocmask(SIG_BLOCK, nullptr, &blocked);
  text += "\nsignals:";
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action {};
    if (::sigaction(signal, nullptr, &action) != 0) continue;
    if (::sigismember(&blocked, signal) == 1) text += " blocked " + std::to_string(signal);
    if (action.sa_handler == SIG_IGN) text += " ignored " + std::to_string(signal);
  }
  text += "\ndirectory: " + std::filesystem::current_path().string();
  text += ::getpgrp() == ::getpid() ? "\ngroup: own" : "\ngroup: another";
  text += "\nenvironment:";
  for (char** setting = environ; *setting != nullptr; ++setting)
    text += std::string(" ") + *setting;
  return text;
}

class Item final : public NSFileProviderItem {
 public:
  Item(std::string identifier, std::string name)
      : identifier_(std::move(identifier)), name_(std::move(name)) {}
  std::string itemIdentifier() const override { return identifier_; }
  std::string parentItemIdentifier() const override { return {}; }
  std::string filename() const override { return name_; }

 private:
  const std::string identifier_;
  const std::string name_;
};

// Dies unless the file at the container's path is there; then it has one item, this process's number.
class Enumerator final : public NSFileProviderEnumerator {
 public:
  explicit Enumerator(std::string flag) : flag_(std::move(flag)) {}
  void invalidate() override {}
  void enumerateItems(std::shared_ptr<NSFileProviderEnumerationObserver> observer,
                      std::string) override {
    dieUnlessFlagged();
    observer->didEnumerateItems({std::make_shared<Item>(std::to_string(::getpid()), "")});
    observer->finishEnumeratingUpToPage(std::nullopt);
  }
  void enumerateChanges(std::shared_ptr<NSFileProviderChangeObserver> observer,
                        std::string) override {
    dieUnlessFlagged();
    observer->finishEnumeratingChangesUpToSyncAnchor("here", false);
  }
  void currentSyncAnchor(std::function<void(std::optional<std::string>)> handler) override {
    dieUnlessFlagged();
    handler("here");
  }

 private:
  // The next one finds it.
  void dieUnlessFlagged() const {
    if (std::filesystem::exists(flag_)) return;
    ::close(::creat(flag_.c_str(), 0600));
    ::kill(::getpid(), SIGKILL);
    sleepForEver();
  }
  const std::string flag_;
};

class Fragile : public NSFileProviderReplicatedExtension {
 public:
  explicit Fragile(std::string found) : found_(std::move(found)) {}
  void invalidate() override {}
  NSProgressPtr item(std::string identifier, NSFileProviderRequest, ItemHandler handler) override {
    const std::string asked = identifier.substr(0, identifier.find(' '));
    if (asked == "kill") ::kill(::getpid(), SIGKILL);
    if (asked == "exit") std::_Exit(3);
    if (asked == "abort") {
      constexpr std::string_view kNote = "signal: ABRT\nfragile_program(+0x1234)\n";
      if (::write(kReport, kNote.data(), kNote.size()) < 0) std::_Exit(4);
      std::abort();
    }
    if (asked == "hold") {
      held_.push_back(std::move(handler));
    } else {
      handler(std::make_shared<Item>(std::to_string(::getpid()), found_), nullptr);
    }
    return std::make_shared<NSProgress>(1);
  }
  NSProgressPtr fetchContents(std::string, std::optional<NSFileProviderItemVersion>,
                              NSFileProviderRequest, ContentsHandler handler) override {
    handler(std::nullopt, nullptr,
            NSCocoaError(NSCocoaError::featureUnsupported, "no contents").share());
    return std::make_shared<NSProgress>(1);
  }
  std::shared_ptr<NSFileProviderEnumerator> enumerator(std::string container,
                                                       NSFileProviderRequest) override {
    return std::make_shared<Enumerator>(std::move(container));
  }

 private:
  const std::string found_;
  std::vector<ItemHandler> held_;
};

class Streaming final : public Fragile, public ContentStreaming {
 public:
  using Fragile::Fragile;
  NSProgressPtr streamContents(std::string, NSFileProviderItemVersion, NSFileProviderRequest,
                               NSRange, BytesHandler, EndHandler handler) override {
    handler(nullptr, NSCocoaError(NSCocoaError::featureUnsupported, "no contents").share());
    return std::make_shared<NSProgress>(1);
  }
};

// Of a release that speaks otherwise.
class OtherVersion final : public boundary::wire::Extension::Server {
 protected:
  kj::Promise<void> greet(GreetContext context) override {
    context.getResults().setVersion(boundary::kProtocolVersion + 1);
    return kj::READY_NOW;
  }
};

void serveOtherVersion() {
  auto io = kj::setupAsyncIo();
  auto stream = io.lowLevelProvider->wrapSocketFd(kSocket);
  capnp::TwoPartyVatNetwork network(*stream, capnp::rpc::twoparty::Side::SERVER);
  auto system = capnp::makeRpcServer(network, kj::heap<OtherVersion>());
  network.onDisconnect().wait(io.waitScope);
}

}  // namespace

int main(int argc, char** argv) {
  std::string found = surroundings();
  const struct rlimit none {};
  ::setrlimit(RLIMIT_CORE, &none);
  ::alarm(120);  // outlives no test that was killed
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "crash") ::kill(::getpid(), SIGKILL);
  if (mode == "exit") return 3;
  if (mode == "silent") sleepForEver();
  if (mode == "other-version") {
    serveOtherVersion();
    return 0;
  }
  std::promise<void> ended;
  const boundary::ExtensionServer server(
      kSocket,
      [&](const auto&, const auto&) -> std::shared_ptr<NSFileProviderReplicatedExtension> {
        if (mode == "less") return std::make_shared<Fragile>(found);
        return std::make_shared<Streaming>(found);
      },
      [&] { ended.set_value(); }, {"no walls"});
  ended.get_future().wait();
  if (mode == "hang") sleepForEver();
  std::_Exit(0);
}
