// What it costs that the extension runs in a process of its own: the same operations of the same extension in this process and
// behind the boundary, by turns, as the host makes them. Prints one line a measurement, "name ours peer": medians.
//
//   kestrune-boundary-bench PROGRAM WORK ITEM FOLDER FILE [NAME...]
//
// NAME chooses measurements. PROGRAM is kestrune-fileprovider, WORK a directory of the caller's own; the configuration is taken from the environment as usual.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "config/StorageLocations.h"
#include "extension/FileProviderExtension.h"
#include "host/in/ItemRecord.h"
#include "host/launch/LaunchedExtension.h"
#include "host/launch/Launcher.h"
#include "host/launch/PlatformServices.h"
#include "host/launch/SandboxedCommand.h"
#include "platform/files/Directories.h"
#include "platform/values/Allocator.h"

namespace {

using namespace kestrune;  // NOLINT(google-build-using-namespace): a main program
using platform::NSErrorPtr;
using platform::NSFileProviderItemPtr;
using ExtensionPtr = std::shared_ptr<platform::NSFileProviderReplicatedExtension>;

void require(const NSErrorPtr& error) {
  if (error) error->raise();
}

NSFileProviderItemPtr item(const ExtensionPtr& extension, const std::string& path) {
  std::promise<NSFileProviderItemPtr> found;
  extension->item(path, {}, [&](const NSFileProviderItemPtr& one, const NSErrorPtr& error) {
    if (error) std::fprintf(stderr, "%s\n", error->localizedDescription().c_str());
    if (one) host::ItemRecord::from(*one);  // as the host does
    found.set_value(one);
  });
  return found.get_future().get();
}

class Counter final : public platform::NSFileProviderEnumerationObserver {
 public:
  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    for (const auto& one : items)
      records_.push_back(host::ItemRecord::from(*one));  // as the host does
  }
  void finishEnumeratingUpToPage(std::optional<platform::NSFileProviderPage>) override {
    ended_.set_value(nullptr);
  }
  void finishEnumeratingWithError(NSErrorPtr error) override { ended_.set_value(error); }
  std::size_t wait() {
    require(ended_.get_future().get());
    return records_.size();
  }

 private:
  std::vector<host::ItemRecord> records_;
  std::promise<NSErrorPtr> ended_;
};

std::size_t list(const ExtensionPtr& extension, const std::string& folder) {
  const auto counter = std::make_shared<Counter>();
  extension->enumerator(folder, {})
      ->enumerateItems(counter, platform::NSFileProviderInitialPageSortedByName);
  return counter->wait();
}

// The whole file as a file in the temporary directory.
void fetch(const ExtensionPtr& extension, const NSFileProviderItemPtr& file) {
  std::promise<NSErrorPtr> ended;
  extension->fetchContents(
      file->itemIdentifier(), file->itemVersion(), {},
      [&ended](const std::optional<std::filesystem::path>& url, const auto&, const auto& error) {
        if (url) std::filesystem::remove(*url);
        ended.set_value(error);
      });
  require(ended.get_future().get());
}

// The whole file as a stream into a new file, as the host takes it.
void stream(const ExtensionPtr& extension, const NSFileProviderItemPtr& file,
            const std::string& target) {
  const int descriptor = ::open(target.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600);
  std::promise<NSErrorPtr> ended;
  dynamic_cast<platform::ContentStreaming&>(*extension)
      .streamContents(
          file->itemIdentifier(), *file->itemVersion(), {}, {0, *file->documentSize()},
          [descriptor](std::int64_t offset, std::string_view bytes) {
            return ::pwrite(descriptor, bytes.data(), bytes.size(), offset) ==
                   static_cast<ssize_t>(bytes.size());
          },
          [&ended](const auto&, const NSErrorPtr& error) { ended.set_value(error); });
  require(ended.get_future().get());
  ::close(descriptor);
  ::unlink(target.c_str());
}

double secondsOf(const std::function<void()>& work) {
  const auto begun = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
}

double median(std::vector<double> values) {
  std::ranges::sort(values);
  return values[values.size() / 2];
}

// Both by turns, after a round that warms both up.
void compare(const char* name, int rounds, const std::function<void(bool isLaunched)>& work) {
  std::vector<double> ours;
  std::vector<double> peer;
  work(true);
  work(false);
  for (int round = 0; round < rounds; ++round) {
    ours.push_back(secondsOf([&] { work(true); }));
    peer.push_back(secondsOf([&] { work(false); }));
  }
  std::printf("%s %.6f %.6f\n", name, median(ours), median(peer));
}

ExtensionPtr launched(const std::filesystem::path& program, const std::filesystem::path& work) {
  sandbox::SandboxPaths paths;
  paths.shared = storage::sharedDirectory();
  paths.temporary = work / "tmp";
  paths.outgoing = work / "outgoing";
  paths.program = program;
  storage::listingCacheDirectory();  // the host makes it
  std::filesystem::create_directories(paths.temporary);
  std::filesystem::create_directories(paths.outgoing);
  const auto command = std::make_shared<host::SandboxedCommand>(paths);
  host::LaunchOptions options;
  options.command = [command] { return command->next(); };
  options.offers = {true, true, true};
  options.services = host::platformServices(options.domain);
  options.log = std::make_shared<host::HostLog>();
  options.timers = host::systemTimers();
  options.reports = work / "crashes";
  return host::makeLaunchedExtension(std::make_shared<host::Launcher>(options), options.offers);
}

}  // namespace

int main(int argc, char** argv) {
  platform::keepFreedMemory();  // as the programs themselves
  if (argc < 6) {
    std::fputs("usage: kestrune-boundary-bench PROGRAM WORK ITEM FOLDER FILE [NAME...]\n", stderr);
    return 2;
  }
  const std::filesystem::path work = argv[2];
  const ExtensionPtr behind = launched(argv[1], work);
  const ExtensionPtr here = FileProviderExtension::make(
      std::make_shared<const platform::NSFileProviderDomain>("main", "Kestrune"));
  const auto either = [&](bool isLaunched) { return isLaunched ? behind : here; };
  const std::vector<std::string> chosen(argv + 6, argv + argc);
  const auto measure = [&chosen](const char* name, int rounds, const auto& work) {
    if (chosen.empty() || std::ranges::find(chosen, name) != chosen.end())
      compare(name, rounds, work);
  };
  try {
    measure("item", 500, [&](bool isLaunched) { item(either(isLaunched), argv[3]); });
    measure("list", 5, [&](bool isLaunched) { list(either(isLaunched), argv[4]); });
    const auto file = item(here, argv[5]);
    measure("contents", 5, [&](bool isLaunched) { fetch(either(isLaunched), file); });
    measure("stream", 5, [&](bool isLaunched) { stream(either(isLaunched), file, work / "out"); });
  } catch (const platform::NSError& error) {
    std::fprintf(stderr, "kestrune-boundary-bench: %s\n", error.localizedDescription().c_str());
    return 1;
  }
  behind->invalidate();
  return 0;
}
