// One program at work in one folder of a mount, and a model of what it was promised: whatever a call that returned has
// done is there, also after the host was killed; a call that did not return has done all, nothing or, for bytes, a part.
//
// Threads: `work` runs on a thread of the worker's own choice; everything else while it does not run.
#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>

namespace kestrune::mounttest {

class CrashWorker {
 public:
  /// Works in `folder`, which exists; the same seed does the same work.
  CrashWorker(std::filesystem::path folder, unsigned seed);

  /// The errno of the call that failed, 0 for none, and which call that was.
  struct End {
    int error = 0;
    std::string what;
  };
  /// Works until a call fails or `stop` is set.
  End work(const std::atomic<bool>& stop);
  /// Compares the folder with what was promised, and takes over what the interrupted call came to. What is wrong, empty
  /// if nothing is.
  std::string check();
  /// Names and contents as promised, as `snapshotOf` gives them.
  const std::map<std::string, std::string>& model() const { return model_; }
  std::size_t callCount() const { return calls_; }

 private:
  using Model = std::map<std::string, std::string>;
  /// The bytes that a file may have: `before` from byte to byte or `after`, at a length between theirs.
  struct Bytes {
    std::string name;
    std::string before;
    std::string after;
  };

  void step();
  void writeWhole();
  void saveByRename();
  void append();
  void overwrite();
  void remove();
  void renameFile();
  void makeFolder();
  void renameFolder();
  void removeFolder();

  /// Makes a call that changes names: until it returns both models may hold.
  void change(const Model& after, const std::function<int()>& call);
  /// Opens, writes at `offset`, sometimes asks for durability, and closes.
  void write(const std::string& name, int flags, const std::string& bytes, std::size_t offset);
  std::string anyBytes();
  std::string anyFolder();
  std::string newName() { return anyFolder() + "f" + std::to_string(pick(12)); }
  /// The name of a file that is there; empty if there is none.
  std::string anyFile();
  std::size_t pick(std::size_t count) { return random_() % count; }
  bool isPossible(const Model& found) const;

  const std::filesystem::path folder_;
  std::mt19937 random_;
  Model model_;
  /// What the call under way would lead to.
  std::optional<Model> other_;
  std::optional<Bytes> bytes_;
  std::size_t calls_ = 0;
};

}  // namespace kestrune::mounttest
