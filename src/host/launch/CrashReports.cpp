#include "host/launch/CrashReports.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <vector>

#include "platform/files/AtomicFile.h"
#include "platform/log/Log.h"
#include "platform/values/Date.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

constexpr const char* kPrefix = "crash-";

std::string contentsOf(const Descriptor& file) {
  std::string text(CrashReports::kMostBytes, '\0');
  const ssize_t got = ::pread(file.number(), text.data(), text.size(), 0);
  text.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  return text;
}

// Lines as they were, and nothing in them that could disturb a terminal.
std::string shown(const std::string& text) {
  std::string lines;
  std::size_t from = 0;
  while (from < text.size()) {
    const std::size_t end = std::min(text.find('\n', from), text.size());
    lines += platform::escapeForDisplay(text.substr(from, end - from)) + "\n";
    from = end + 1;
  }
  return lines;
}

// The newest first: their names begin with the time.
std::vector<std::filesystem::path> reportsIn(const std::filesystem::path& directory,
                                             std::error_code& error) {
  std::vector<std::filesystem::path> reports;
  std::filesystem::directory_iterator entry(directory, error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    if (entry->path().filename().string().starts_with(kPrefix)) reports.push_back(entry->path());
  }
  std::sort(reports.rbegin(), reports.rend());
  return reports;
}

}  // namespace

Descriptor CrashReports::open() const {
  if (::mkdir(directory_.c_str(), 0700) != 0 && errno != EEXIST)
    throw platform::NSPOSIXError(errno, "make '" + directory_.string() + "'");
  const int file = ::open(directory_.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
  if (file < 0) throw platform::NSPOSIXError(errno, "make a file in '" + directory_.string() + "'");
  return Descriptor(file);
}

void CrashReports::keep(const Descriptor& file, const std::string& heading) const {
  const std::string when = platform::formatISO8601Milliseconds(platform::dateNow());
  const auto path = directory_ / (kPrefix + when + ".txt");
  try {
    platform::replaceFile(path, when + " " + heading + "\n" + shown(contentsOf(file)),
                          platform::Durability::durable);
    removeOldest();
  } catch (const platform::NSError& error) {
    log_->failure("crash-report", "keep the report of a crash", error.localizedDescription());
  }
}

void CrashReports::removeOldest() const {
  std::error_code error;
  const auto reports = reportsIn(directory_, error);
  for (std::size_t i = kMost; i < reports.size() && !error; ++i)
    std::filesystem::remove(reports[i], error);
  if (error) log_->failure("crash-report", "remove the report of an old crash", error.message());
}

std::vector<std::string> CrashReports::keptIn(const std::filesystem::path& directory) {
  constexpr std::uint64_t kMostShown = 8 * kMostBytes;  // a byte is escaped with a few
  std::error_code error;                                // there is none to be told, then
  auto files = reportsIn(directory, error);
  if (files.size() > kMost) files.resize(kMost);
  std::vector<std::string> reports;
  for (const auto& file : files) {
    try {
      reports.push_back(platform::readFile(file, kMostShown));
    } catch (const platform::NSError&) {
      reports.emplace_back("a report that cannot be read\n");
    }
  }
  return reports;
}

}  // namespace kestrune::host
