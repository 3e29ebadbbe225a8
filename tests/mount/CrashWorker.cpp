#include "tests/mount/CrashWorker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>
#include <vector>

#include "tests/mount/LiveMount.h"

namespace kestrune::mounttest {

namespace {

void must(bool worked, const std::string& what) {
  if (!worked) throw std::system_error(errno, std::generic_category(), what);
}

bool isFolder(const std::string& name) { return name.ends_with('/'); }

bool isBetween(const std::string& found, const std::string& before, const std::string& after) {
  if (found.size() > std::max(before.size(), after.size())) return false;
  if (found.size() < std::min(before.size(), after.size())) return false;
  for (std::size_t at = 0; at < found.size(); ++at) {
    const bool isOld = at < before.size() && found[at] == before[at];
    const bool isNew = at < after.size() && found[at] == after[at];
    if (!isOld && !isNew) return false;
  }
  return true;
}

}  // namespace

CrashWorker::CrashWorker(std::filesystem::path folder, unsigned seed)
    : folder_(std::move(folder)), random_(seed) {}

CrashWorker::End CrashWorker::work(const std::atomic<bool>& stop) {
  try {
    while (!stop) step();
    return {};
  } catch (const std::system_error& error) {
    return {error.code().value(), error.what()};
  }
}

void CrashWorker::step() {
  using Step = void (CrashWorker::*)();
  static constexpr Step kSteps[] = {
      &CrashWorker::writeWhole,   &CrashWorker::writeWhole,  &CrashWorker::saveByRename,
      &CrashWorker::append,       &CrashWorker::append,      &CrashWorker::overwrite,
      &CrashWorker::remove,       &CrashWorker::renameFile,  &CrashWorker::makeFolder,
      &CrashWorker::renameFolder, &CrashWorker::removeFolder};
  (this->*kSteps[pick(std::size(kSteps))])();
}

void CrashWorker::change(const Model& after, const std::function<int()>& call) {
  other_ = after;
  must(call() == 0, "change names");
  ++calls_;
  model_ = after;
  other_.reset();
}

void CrashWorker::write(const std::string& name, int flags, const std::string& bytes,
                        std::size_t offset) {
  const std::string path = folder_ / name;
  // Creating and emptying are promised when `open` returns.
  Model opened = model_;
  if (!opened.contains(name) || (flags & O_TRUNC) != 0) opened[name] = "";
  int file = -1;
  change(opened,
         [&] { return (file = ::open(path.c_str(), flags | O_CLOEXEC, 0600)) < 0 ? -1 : 0; });
  const std::string before = model_[name];
  std::string after = before;
  after.resize(std::max(after.size(), offset + bytes.size()));
  after.replace(offset, bytes.size(), bytes);
  bytes_ = Bytes{name, before, after};
  bool worked = true;
  const char* doing = "write";
  for (std::size_t done = 0; worked && done < bytes.size();) {
    const ssize_t count =
        ::pwrite(file, bytes.data() + done, std::min<std::size_t>(bytes.size() - done, 128U << 10U),
                 static_cast<off_t>(offset + done));
    worked = count > 0;
    if (worked) done += static_cast<std::size_t>(count);
  }
  if (worked && pick(4) == 0) {
    doing = "flush";
    worked = ::fsync(file) == 0;
  }
  int error = errno;
  if (::close(file) != 0 && worked) {
    doing = "close";
    worked = false;
    error = errno;
  }
  errno = error;
  must(worked, doing + (" " + name));
  ++calls_;
  model_[name] = after;
  bytes_.reset();
}

std::string CrashWorker::anyBytes() {
  const std::size_t kind = pick(20);
  const std::size_t length = kind == 0 ? 0 : kind == 1 ? 300'000 + pick(2'000'000) : pick(20'000);
  std::string bytes(length, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(random_());
  return bytes;
}

std::string CrashWorker::anyFolder() {
  std::vector<std::string> folders = {""};
  for (const auto& [name, contents] : model_) {
    if (isFolder(name)) folders.push_back(name);
  }
  return folders[pick(folders.size())];
}

std::string CrashWorker::anyFile() {
  std::vector<std::string> files;
  for (const auto& [name, contents] : model_) {
    if (!isFolder(name)) files.push_back(name);
  }
  return files.empty() ? "" : files[pick(files.size())];
}

void CrashWorker::writeWhole() { write(newName(), O_CREAT | O_TRUNC | O_WRONLY, anyBytes(), 0); }

void CrashWorker::saveByRename() {
  const std::string target = newName();
  const std::string temporary = target + ".new";
  write(temporary, O_CREAT | O_TRUNC | O_WRONLY, anyBytes(), 0);
  Model after = model_;
  after[target] = after[temporary];
  after.erase(temporary);
  change(after,
         [&] { return ::rename((folder_ / temporary).c_str(), (folder_ / target).c_str()); });
}

void CrashWorker::append() {
  const std::string name = anyFile();
  if (!name.empty()) write(name, O_WRONLY, anyBytes(), model_[name].size());
}

void CrashWorker::overwrite() {
  const std::string name = anyFile();
  if (name.empty() || model_[name].empty()) return;
  write(name, O_RDWR, anyBytes().substr(0, 5000), pick(model_[name].size()));
}

void CrashWorker::remove() {
  const std::string name = anyFile();
  if (name.empty()) return;
  Model after = model_;
  after.erase(name);
  change(after, [&] { return ::unlink((folder_ / name).c_str()); });
}

void CrashWorker::renameFile() {
  const std::string name = anyFile();
  const std::string target = newName();
  if (name.empty() || name == target) return;
  Model after = model_;
  after[target] = after[name];
  after.erase(name);
  change(after, [&] { return ::rename((folder_ / name).c_str(), (folder_ / target).c_str()); });
}

void CrashWorker::makeFolder() {
  const std::string name = "d" + std::to_string(pick(5)) + "/";
  if (model_.contains(name)) return;
  Model after = model_;
  after[name] = "";
  change(after, [&] { return ::mkdir((folder_ / name).c_str(), 0700); });
}

void CrashWorker::renameFolder() {
  const std::string from = anyFolder();
  const std::string to = "d" + std::to_string(pick(5)) + "/";
  if (from.empty() || model_.contains(to)) return;
  Model after;
  for (const auto& [name, contents] : model_)
    after[name.starts_with(from) ? to + name.substr(from.size()) : name] = contents;
  change(after, [&] {
    return ::rename((folder_ / from.substr(0, from.size() - 1)).c_str(),
                    (folder_ / to.substr(0, to.size() - 1)).c_str());
  });
}

void CrashWorker::removeFolder() {
  const std::string name = anyFolder();
  if (name.empty()) return;
  const auto next = model_.upper_bound(name);
  if (next != model_.end() && next->first.starts_with(name)) return;
  Model after = model_;
  after.erase(name);
  change(after, [&] { return ::rmdir((folder_ / name).c_str()); });
}

bool CrashWorker::isPossible(const Model& found) const {
  if (found == model_ || (other_ && found == *other_)) return true;
  if (!bytes_ || !found.contains(bytes_->name)) return false;
  Model without = found;
  without[bytes_->name] = bytes_->before;
  return without == model_ && isBetween(found.at(bytes_->name), bytes_->before, bytes_->after);
}

std::string CrashWorker::check() {
  const Model found = snapshotOf(folder_);
  std::string wrong;
  if (!isPossible(found)) {
    wrong = differences(model_, found);
    if (other_) wrong += "or, with the interrupted call done:\n" + differences(*other_, found);
    if (bytes_) wrong += "while " + bytes_->name + " was written\n";
  }
  model_ = found;
  other_.reset();
  bytes_.reset();
  return wrong;
}

}  // namespace kestrune::mounttest
