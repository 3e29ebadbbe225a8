#include "host/launch/CrashReports.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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
  } catch (const std::filesystem::filesystem_error& error) {
    log_->failure("crash-report", "keep the report of a crash", error.what());
  }
}

void CrashReports::removeOldest() const {
  std::vector<std::filesystem::path> reports;
  for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
    if (entry.path().filename().string().starts_with(kPrefix)) reports.push_back(entry.path());
  }
  std::sort(reports.begin(), reports.end());  // their names begin with the time
  for (std::size_t i = 0; i + kMost < reports.size(); ++i) std::filesystem::remove(reports[i]);
}

}  // namespace kestrune::host
