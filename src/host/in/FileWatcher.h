// Tells when one small file is written, replaced, created or removed: the signal by which another process says that the
// remote side may have changed. Its contents are nobody's business here.
//
// The file's folder is watched, so the file need not exist yet and may be replaced by a rename; the folder is made (mode
// 0700) if it is missing. Where watching fails, because the folder went or the kernel's limits are reached, the watcher
// reports a change, since it may have missed one, and tries again every few seconds.
//
// Threads: one thread of its own; the callback runs there.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "platform/files/FileEvents.h"

namespace kestrune::host {

class FileWatcher {
 public:
  /// Calls `changed` after every change of `file` from now on. Throws NSPOSIXError if the kernel gives no means.
  FileWatcher(std::filesystem::path file, std::function<void()> changed);
  /// When it returns, `changed` is not running and will not be called. REQUIRES: not called from `changed`.
  ~FileWatcher();
  FileWatcher(const FileWatcher&) = delete;
  FileWatcher& operator=(const FileWatcher&) = delete;

 private:
  void run();
  bool beginWatch();
  bool drainEvents();
  bool isChange(const platform::FileEvents::Event& event);

  const std::filesystem::path file_;
  const std::string name_;
  const std::function<void()> changed_;
  platform::FileEvents events_;
  int watch_ = -1;  // used by the constructor, then by the thread alone
  std::thread thread_;
};

}  // namespace kestrune::host
