// The set of pinned remote paths, kept in "pinned.json" of the shared directory: a JSON array of
// texts, each once, in ascending byte order.
//
// A pin names one path exactly: pinning a folder pins nothing below it. Nothing is kept in memory;
// each call reads the file. A file that is missing or is no array of texts holds no pins, and the
// next change replaces it.
//
// Threads: callable from any thread; each call blocks its caller until done. Reads run side by
// side, changes alone, so two changes never lose each other, also where another process of ours makes
// one of them. Fails: never; a change that cannot be written is lost.
#pragma once

#include <filesystem>
#include <set>
#include <string>

namespace kestrune {

class PinStore {
 public:
  PinStore() = delete;

  /// The shared directory, made if it is missing: the same as SharedConfig::configDir.
  static std::filesystem::path configDir();

  static bool isPinned(const std::string& path);
  /// Pins or unpins; the file is rewritten even if nothing changes.
  static void setPinned(bool pinned, const std::string& path);

 private:
  static std::set<std::string> load();
  static void save(const std::set<std::string>& paths);
};

}  // namespace kestrune
