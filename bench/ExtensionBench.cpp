// Runs one operation of the extension in this process and prints how long it took and how much
// memory it needed beyond idle, as "seconds=… peak_mib=… " on one line. The configuration is taken
// from the environment as usual.
//
//   kestrune-bench download PATH          the whole contents of a remote file
//   kestrune-bench partial PATH           the same by ranges, each from where the one before ended
//   kestrune-bench list PATH              all items of a remote folder, through the enumerator
//   kestrune-bench upload PATH FILE       a local file as a new remote one
//   kestrune-bench create FOLDER FILE N   a local file as N new ones, eight at a time

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <semaphore>
#include <string>
#include <vector>

#include "extension/FileProviderExtension.h"
#include "platform/values/Allocator.h"
#include "platform/values/Mutex.h"

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
  /// Files that were handed over; removed when the time has been taken.
  std::vector<std::filesystem::path> files;
};

Outcome download(FileProviderExtension& extension, const std::string& path) {
  std::promise<Outcome> promise;
  auto done = promise.get_future();
  extension.fetchContents(path, std::nullopt, {},
                          [&promise](const auto& file, const auto&, const NSErrorPtr& error) {
                            Outcome outcome{error, 0, {}};
                            if (file) {
                              outcome.units = std::filesystem::file_size(*file);
                              outcome.files.push_back(*file);
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

// What a reader asks for that goes through a file from its beginning to its end.
Outcome readInOrder(FileProviderExtension& extension, const std::string& path) {
  constexpr std::int64_t kRequestBytes = 1 << 20;
  Outcome total;
  for (;;) {
    std::promise<Outcome> promise;
    auto done = promise.get_future();
    std::int64_t fileBytes = 0;
    extension.fetchPartialContents(
        path, {}, {}, {static_cast<std::int64_t>(total.units), kRequestBytes}, 0, {},
        [&](const auto& file, const auto&, auto range, auto, const NSErrorPtr& error) {
          Outcome outcome{error, static_cast<std::size_t>(range.length), {}};
          if (file) {
            fileBytes = static_cast<std::int64_t>(std::filesystem::file_size(*file));
            outcome.files.push_back(*file);
          }
          promise.set_value(outcome);
        });
    Outcome one = done.get();
    total.units += one.units;
    total.error = one.error;
    total.files.insert(total.files.end(), one.files.begin(), one.files.end());
    if (total.error || static_cast<std::int64_t>(total.units) >= fileBytes) return total;
  }
}

class NewFile final : public kestrune::platform::NSFileProviderItem {
 public:
  explicit NewFile(std::filesystem::path path) : path_(std::move(path)) {}
  std::string itemIdentifier() const override { return "new"; }
  std::string parentItemIdentifier() const override {
    const std::string parent = path_.parent_path();
    return parent == "/" ? kestrune::platform::NSFileProviderRootContainerItemIdentifier : parent;
  }
  std::string filename() const override { return path_.filename(); }

 private:
  const std::filesystem::path path_;
};

void create(FileProviderExtension& extension, const std::string& path, const std::string& contents,
            std::function<void(NSErrorPtr)> done) {
  extension.createItem(
      std::make_shared<NewFile>(path), {}, contents, {}, {},
      [done = std::move(done)](const auto&, auto, bool, const NSErrorPtr& error) { done(error); });
}

Outcome upload(FileProviderExtension& extension, const std::string& path,
               const std::string& contents) {
  std::promise<Outcome> promise;
  auto done = promise.get_future();
  create(extension, path, contents, [&](const NSErrorPtr& error) {
    promise.set_value({error, std::filesystem::file_size(contents), {}});
  });
  return done.get();
}

Outcome createMany(FileProviderExtension& extension, const std::string& folder,
                   const std::string& contents, std::size_t count) {
  std::counting_semaphore<> places(8);
  kestrune::platform::Mutex mutex;
  Outcome total;
  for (std::size_t i = 0; i < count; ++i) {
    places.acquire();
    create(extension, folder + "/new-" + std::to_string(i), contents, [&](const NSErrorPtr& error) {
      {
        kestrune::platform::MutexLock lock(mutex);
        if (error) total.error = error;
        ++total.units;
      }
      places.release();
    });
  }
  for (int i = 0; i < 8; ++i) places.acquire();
  return total;
}

Outcome list(FileProviderExtension& extension, const std::string& path) {
  const auto observer = std::make_shared<Counter>();
  extension.enumerator(path, {})->enumerateItems(observer, {});
  return observer->wait();
}

using Operation = std::function<Outcome(FileProviderExtension&)>;

Operation operationOf(const std::vector<std::string>& words) {
  const auto is = [&words](const char* name, std::size_t count) {
    return words.size() == count + 1 && words[0] == name;
  };
  if (is("download", 1)) return [words](auto& extension) { return download(extension, words[1]); };
  if (is("partial", 1)) {
    return [words](auto& extension) { return readInOrder(extension, words[1]); };
  }
  if (is("list", 1)) return [words](auto& extension) { return list(extension, words[1]); };
  if (is("upload", 2)) {
    return [words](auto& extension) { return upload(extension, words[1], words[2]); };
  }
  if (is("create", 3)) {
    return [words](auto& extension) {
      return createMany(extension, words[1], words[2], std::stoul(words[3]));
    };
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  kestrune::platform::keepFreedMemory();  // as the program itself
  const std::vector<std::string> words(argv + 1, argv + argc);
  const Operation operation = operationOf(words);
  if (!operation) {
    std::fprintf(stderr,
                 "usage: kestrune-bench download|partial|list PATH | upload PATH FILE | create "
                 "FOLDER FILE N\n");
    return 2;
  }
  const auto domain = std::make_shared<kestrune::platform::NSFileProviderDomain>("bench", "Bench");
  const auto extension = FileProviderExtension::make(domain);
  list(*extension, "/");  // the first request opens a connection and touches every library once
  resetPeak();
  const long idle = peakKiB();
  const auto start = std::chrono::steady_clock::now();
  const Outcome outcome = operation(*extension);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  for (const auto& file : outcome.files) std::filesystem::remove(file);
  if (outcome.error) {
    std::fprintf(stderr, "kestrune-bench: %s '%s': %s\n", argv[1], argv[2], outcome.error->what());
    return 1;
  }
  std::printf("seconds=%.4f peak_mib=%.1f units=%zu\n", took.count(),
              static_cast<double>(peakKiB() - idle) / 1024.0, outcome.units);
  return 0;
}
