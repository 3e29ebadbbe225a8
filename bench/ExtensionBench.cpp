// Runs one operation of the extension in this process and prints how long it took and how much
// memory it needed beyond idle, as "seconds=… peak_mib=… " on one line. The configuration is taken
// from the environment as usual.
//
//   kestrune-bench download PATH     the whole contents of a remote file, into the temporary
//   directory kestrune-bench list PATH         all items of a remote folder, through the enumerator

#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>

#include "extension/FileProviderExtension.h"

namespace {

using kestrune::FileProviderExtension;
using kestrune::platform::NSErrorPtr;
using kestrune::platform::NSFileProviderItemPtr;

/// The largest resident size since the last reset, in KiB.
long peakKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmHWM:")) return std::stol(line.substr(6));
  }
  return 0;
}

void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

struct Outcome {
  NSErrorPtr error;
  std::size_t units = 0;  // bytes or items
};

Outcome download(FileProviderExtension& extension, const std::string& path) {
  std::promise<Outcome> promise;
  auto done = promise.get_future();
  extension.fetchContents(path, std::nullopt, {},
                          [&promise](const auto& file, const auto&, const NSErrorPtr& error) {
                            Outcome outcome{error};
                            if (file) {
                              outcome.units = std::filesystem::file_size(*file);
                              std::filesystem::remove(*file);
                            }
                            promise.set_value(outcome);
                          });
  return done.get();
}

class Counter final : public kestrune::platform::NSFileProviderEnumerationObserver {
 public:
  void didEnumerateItems(std::vector<NSFileProviderItemPtr> items) override {
    outcome_.units += items.size();
  }
  void finishEnumeratingUpToPage(std::optional<kestrune::platform::NSFileProviderPage>) override {
    promise_.set_value(outcome_);
  }
  void finishEnumeratingWithError(NSErrorPtr error) override {
    outcome_.error = std::move(error);
    promise_.set_value(outcome_);
  }
  Outcome wait() { return promise_.get_future().get(); }

 private:
  Outcome outcome_;
  std::promise<Outcome> promise_;
};

Outcome list(FileProviderExtension& extension, const std::string& path) {
  const auto observer = std::make_shared<Counter>();
  extension.enumerator(path, {})->enumerateItems(observer, {});
  return observer->wait();
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3 || (std::strcmp(argv[1], "download") != 0 && std::strcmp(argv[1], "list") != 0)) {
    std::fprintf(stderr, "usage: kestrune-bench download|list PATH\n");
    return 2;
  }
  const auto domain = std::make_shared<kestrune::platform::NSFileProviderDomain>("bench", "Bench");
  const auto extension = FileProviderExtension::make(domain);
  const std::string path = argv[2];
  list(*extension, "/");  // the first request opens a connection and touches every library once
  resetPeak();
  const long idle = peakKiB();
  const auto start = std::chrono::steady_clock::now();
  const Outcome outcome =
      std::strcmp(argv[1], "download") == 0 ? download(*extension, path) : list(*extension, path);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  if (outcome.error) {
    std::fprintf(stderr, "kestrune-bench: %s '%s': %s\n", argv[1], path.c_str(),
                 outcome.error->what());
    return 1;
  }
  std::printf("seconds=%.4f peak_mib=%.1f units=%zu\n", took.count(),
              static_cast<double>(peakKiB() - idle) / 1024.0, outcome.units);
  return 0;
}
