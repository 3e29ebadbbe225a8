#include "companion/ListCommands.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <future>
#include <iterator>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

#include "companion/ScratchDirectory.h"
#include "companion/configuration/CommandError.h"
#include "companion/terminal/ProgressLine.h"
#include "extension/FileProviderExtension.h"
#include "host/basics/ItemName.h"
#include "host/control/ControlRequest.h"
#include "host/in/Enumeration.h"
#include "platform/log/Log.h"
#include "platform/values/NSError.h"

namespace kestrune {

namespace {

using host::ItemRecord;

constexpr std::size_t kCopyBytes = 1U << 20U;
constexpr std::chrono::milliseconds kProgressInterval{200};
/// More than that nobody waits for who presses the tabulator.
constexpr unsigned kCompletionSeconds = 1;

std::string inQuotes(const std::string& path) {
  return "'" + platform::escapeForDisplay(path) + "'";
}

[[noreturn]] void fail(const std::string& what, const std::string& path, const std::string& why) {
  throw CommandError("Cannot " + what + " " + inQuotes(path) + ": " + why);
}

[[noreturn]] void failForStore(const std::string& what, const std::string& path,
                               const platform::NSError& error) {
  const std::string why = error.localizedDescription();
  fail(what, path,
       why + (why.ends_with('.') ? "" : ".") +
           " If that stays so, kestrune doctor tells what is amiss.");
}

std::vector<std::string> components(const std::string& path) {
  std::vector<std::string> parts;
  for (std::size_t start = 0; start < path.size();) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    if (end > start) parts.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

std::vector<ItemRecord> children(const ExtensionPtr& extension, const std::string& identifier,
                                 const std::string& what, const std::string& path) {
  std::promise<host::Answer<host::Listing>> promise;
  auto done = promise.get_future();
  host::enumerateFolder(extension, identifier, [&promise](host::Answer<host::Listing> answer) {
    promise.set_value(std::move(answer));
  });
  auto answer = done.get();
  if (!answer.ok()) failForStore(what, path, *answer.error());
  auto items = std::move(answer.value().items);
  std::erase_if(items, [&identifier](const auto& item) {
    return host::whyNotAFileName(item.name) != nullptr || item.parentIdentifier != identifier;
  });
  return items;
}

// The item at `path`; none for the root.
std::optional<ItemRecord> resolve(const ExtensionPtr& extension, const std::string& what,
                                  const std::string& path) {
  std::optional<ItemRecord> at;
  for (const auto& name : components(path)) {
    if (at && !at->isFolder) fail(what, path, inQuotes(at->name) + " is a file, not a folder.");
    const auto items = children(
        extension, at ? at->identifier : platform::NSFileProviderRootContainerItemIdentifier, what,
        path);
    const auto found = std::find_if(items.begin(), items.end(),
                                    [&name](const auto& item) { return item.name == name; });
    if (found == items.end())
      fail(what, path,
           "the store has no " + inQuotes(name) + " there. kestrune ls shows what it has.");
    at = *found;
  }
  return at;
}

std::string line(const ItemRecord& item, const ListOptions& options) {
  if (options.asJson) {
    return platform::encodeJson({{"name", host::pathToJson(item.name)},
                                 {"folder", item.isFolder},
                                 {"sizeBytes", item.sizeBytes},
                                 {"modified", platform::formatISO8601(item.modified)}}) +
           "\n";
  }
  std::string text;
  if (options.isLong) {
    std::array<char, 32> size{};
    std::snprintf(size.data(), size.size(), "%14lld ", static_cast<long long>(item.sizeBytes));
    text = size.data() + platform::formatISO8601(item.modified) + " ";
  }
  text += options.escapesNames ? platform::escapeForDisplay(item.name) : item.name;
  return text + (item.isFolder ? "/\n" : "\n");
}

class Descriptor {
 public:
  explicit Descriptor(int value) : value_(value) {}
  ~Descriptor() {
    if (value_ >= 0) ::close(value_);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int get() const { return value_; }

 private:
  int value_;
};

// False when nobody reads any more.
bool writeAll(int descriptor, const char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t written = ::write(descriptor, bytes, count);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0 && errno == EPIPE) return false;
    if (written < 0) {
      throw CommandError("Cannot write to standard output: " + platform::errnoText(errno));
    }
    bytes += written;
    count -= static_cast<std::size_t>(written);
  }
  return true;
}

void copyFile(const std::filesystem::path& file, const std::string& path, int descriptor) {
  const Descriptor source(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
  const int openError = errno;
  std::error_code ignored;  // the name is not needed any more; the open file is
  std::filesystem::remove(file, ignored);
  if (source.get() < 0) fail("read", path, platform::errnoText(openError));
  std::vector<char> buffer(kCopyBytes);
  for (;;) {
    const ssize_t got = ::read(source.get(), buffer.data(), buffer.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail("read", path, platform::errnoText(errno));
    if (got == 0 || !writeAll(descriptor, buffer.data(), static_cast<std::size_t>(got))) return;
  }
}

// What goes wrong is this command's own message; what goes well is its output.
class SilentSink final : public platform::LogSink {
 public:
  void write(const platform::LogRecord&) override {}
};

ExtensionPtr realExtension() {
  platform::setLogSink(std::make_shared<SilentSink>());
  return FileProviderExtension::make(
      std::make_shared<platform::NSFileProviderDomain>("main", "Kestrune"));
}

}  // namespace

std::string listing(const ExtensionPtr& extension, const ListOptions& options) {
  const auto item = resolve(extension, "list", options.path);
  if (item && !item->isFolder) return line(*item, options);
  auto items = children(
      extension, item ? item->identifier : platform::NSFileProviderRootContainerItemIdentifier,
      "list", options.path);
  std::sort(items.begin(), items.end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  std::string text;
  for (const auto& child : items) text += line(child, options);
  return text;
}

std::string completions(const ExtensionPtr& extension, const std::string& word) {
  const auto slash = word.rfind('/');
  const std::string folder = slash == std::string::npos ? "" : word.substr(0, slash + 1);
  const std::string begun = word.substr(folder.size());
  const auto item = resolve(extension, "complete", folder);
  if (item && !item->isFolder) return {};
  const auto items = children(
      extension, item ? item->identifier : platform::NSFileProviderRootContainerItemIdentifier,
      "complete", folder);
  std::vector<std::string> found;
  for (const auto& child : items) {
    if (child.name.starts_with(begun) && child.name.find('\n') == std::string::npos)
      found.push_back(folder + child.name + (child.isFolder ? "/\n" : "\n"));
  }
  std::sort(found.begin(), found.end());
  if (found.size() > kMostCompletions) found.resize(kMostCompletions);
  std::string text;
  for (const auto& line : found) text += line;
  return text;
}

void copyContents(const ExtensionPtr& extension, const std::string& path, int descriptor,
                  const FetchProgress& progress) {
  const auto item = resolve(extension, "read", path);
  if (!item || item->isFolder) fail("read", path, "it is a folder.");
  struct Outcome {
    std::optional<std::filesystem::path> file;
    platform::NSErrorPtr error;
  };
  // The handler alone keeps the promise: an extension that drops it ends the wait.
  auto promise = std::make_shared<std::promise<Outcome>>();
  auto done = promise->get_future();
  const auto fetched =
      extension->fetchContents(item->identifier, std::nullopt, {},
                               [promise = std::move(promise)](auto file, auto, auto error) {
                                 promise->set_value({std::move(file), std::move(error)});
                               });
  while (progress && done.wait_for(kProgressInterval) == std::future_status::timeout)
    progress(fetched->fractionCompleted());
  const Outcome outcome = done.get();
  if (outcome.error) failForStore("read", path, *outcome.error);
  copyFile(*outcome.file, path, descriptor);
}

void runList(const ListOptions& options) {
  std::signal(SIGPIPE, SIG_IGN);
  const ScratchDirectory scratch;
  const std::string text = listing(realExtension(), options);
  writeAll(STDOUT_FILENO, text.data(), text.size());
}

void runCat(const std::string& path) {
  std::signal(SIGPIPE, SIG_IGN);
  const ScratchDirectory scratch;
  ProgressLine line(STDERR_FILENO);
  // Where the contents go to the same terminal, they are progress enough.
  if (!line.isShown() || ::isatty(STDOUT_FILENO) != 0)
    return copyContents(realExtension(), path, STDOUT_FILENO);
  const std::string shown = platform::escapeForDisplay(path);
  copyContents(realExtension(), path, STDOUT_FILENO, [&](double fraction) {
    line.show(shown + ": " + std::to_string(static_cast<int>(fraction * 100)) + "%");
  });
}

void runCompletePath(const std::string& word) {
  std::signal(SIGALRM, [](int) { ::_exit(0); });
  ::alarm(kCompletionSeconds);
  std::string text;
  try {
    text = completions(realExtension(), word);
  } catch (const CommandError&) {  // there is nothing to say to who only typed a path so far
  }
  writeAll(STDOUT_FILENO, text.data(), text.size());
}

}  // namespace kestrune
