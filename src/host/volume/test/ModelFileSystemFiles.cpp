// What programs do with bytes, and which bytes they may see.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <thread>

#include "host/volume/test/ModelFileSystem.h"

namespace kestrune::host::test {

namespace {

// The range of what is read of `bytes`.
std::string part(const std::string& bytes, std::int64_t offset, std::size_t length) {
  const auto from = static_cast<std::size_t>(offset);
  return from >= bytes.size() ? "" : bytes.substr(from, length);
}

std::string overwritten(std::string bytes, std::int64_t offset, const std::string& text) {
  const auto from = static_cast<std::size_t>(offset);
  bytes.resize(std::max(bytes.size(), from + text.size()), '\0');
  return bytes.replace(from, text.size(), text);
}

std::string readLocal(const LocalFile& file, std::int64_t offset, std::size_t length) {
  const std::int64_t room = std::max<std::int64_t>(0, file.sizeBytes() - offset);
  std::string text(std::min(length, static_cast<std::size_t>(room)), '\0');
  const ssize_t count = ::pread(file.descriptor(), text.data(), text.size(), offset);
  text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return text;
}

}  // namespace

// ------------------------------------------------------------------------------------------- what is shown

std::optional<std::string> ModelFileSystem::contentsOf(const ContentState& state) {
  const auto written = state.number == 0 ? local_.end() : local_.find(state.number);
  if (written == local_.end()) return host_.remote().contentsOfVersion(state.version);
  Local& local = written->second;
  const auto firstOld = local.isOld.find(1);
  const bool hasOld = firstOld != std::string::npos && firstOld < local.bytes.size();
  if (hasOld && hasLostOld(local, state, static_cast<std::int64_t>(firstOld))) loseOld(local);
  return local.bytes;
}

// Of a changed file of which nothing can be fetched any more its own bytes tell whether all had been.
bool ModelFileSystem::hasLostOld(const Local& local, const ContentState& state,
                                 std::int64_t firstOld) {
  const std::string& without = withoutOld_[local.bytes];
  if (!state.isEdited) return host_.remote().contentsOfVersion(state.version) == without;
  if (firstOld < state.fetchableBytes) return false;
  if (!state.isWhole()) return true;
  const LocalFilePtr here = host_.fileSystem().volume()->services().directory->open(state.number);
  return here && local.bytes != without && readLocal(*here, 0, local.bytes.size()) == without;
}

void ModelFileSystem::loseOld(Local& local) {
  const std::string left = withoutOld_[local.bytes];
  if (precious_.erase(local.bytes) > 0) precious_.insert(left);
  local = {left, std::string(left.size(), '\0')};
}

// All that the file may be at this moment. What is here as a whole is one of what the store had since the version was told; of
// which one it is, the host learns with the next listing.
std::vector<std::string> ModelFileSystem::mayBe(const HandlePtr& handle) {
  if (isExact_ && handle->model) return {handle->model->bytes};
  const FileObjectPtr& object = volumeFile(*handle->file).object;
  const ContentState state = object->state();
  if (const auto found = local_.find(state.number); found != local_.end()) {
    const std::string bytes = contentsOf(state).value_or("");
    const LocalFilePtr here = object->present(0, bytes.size());
    if (here && bytes != withoutOld_[bytes] &&
        readLocal(*here, 0, bytes.size()) == withoutOld_[bytes])
      loseOld(found->second);
    return {found->second.bytes};
  }
  std::vector<std::string> since = host_.remote().contentsSince(state.version);
  if (state.number == 0 || !state.isWhole()) return since;
  const LocalFilePtr here = object->present(0, static_cast<std::size_t>(state.sizeBytes));
  if (!here) return since;
  const std::string bytes = readLocal(*here, 0, static_cast<std::size_t>(state.sizeBytes));
  EXPECT_TRUE(std::find(since.begin(), since.end(), bytes) != since.end())
      << handle->path << " has what was never there: " << shortened(bytes);
  return {bytes};
}

// What the store is said to have of a file with nothing unsent is what is here.
void ModelFileSystem::checkAgreement(const HandlePtr& handle) {
  const ContentState state = volumeFile(*handle->file).object->state();
  const auto written = state.number == 0 ? local_.end() : local_.find(state.number);
  const bool isUnsent = host_.fileSystem().volume()->look([&](Tree& tree, Nodes&) {
    const Item* item = tree.find(handle->inode);
    return item == nullptr || item->isEdited();
  });
  if (written == local_.end() || isUnsent || state.isEdited || state.version.empty()) return;
  const std::string stored = host_.remote().contentsOfVersion(state.version).value_or("?");
  const std::string& bytes = written->second.bytes;
  EXPECT_TRUE(stored == bytes || stored == withoutOld_[bytes])
      << shortened(stored) << " is at the store, not " << shortened(bytes);
}

bool ModelFileSystem::isLinked(InodeNumber inode) {
  return host_.fileSystem().volume()->look([inode](Tree& tree, Nodes&) {
    const Item* item = tree.find(inode);
    return item != nullptr && item->isLinked();
  });
}

// What a program that looks at the file sees, or would see.
std::vector<std::string> ModelFileSystem::shown(InodeNumber inode) {
  ContentState state;
  ContentState absent;
  FileObjectPtr object;
  host_.fileSystem().volume()->look([&](Tree& tree, Nodes&) {
    const Item* item = tree.find(inode);
    if (item == nullptr || item->isFolder) return;
    object = item->object();
    absent = absentState(*item);
    state = item->content() ? item->content()->state : absent;
  });
  if (object) state = object->state();
  if (state.number == 0) state = absent;  // it goes on with what there is now
  const auto contents = contentsOf(state);
  return contents ? std::vector{*contents} : std::vector<std::string>{};
}

// What is gone may have lost the old bytes in it before, unseen.
void ModelFileSystem::forgetContents(const std::vector<std::string>& contents) {
  for (const std::string& each : contents) {
    if (precious_.erase(each) > 0) tell("  " + shortened(each) + " may go");
    if (each.empty()) continue;
    std::erase_if(precious_, [&](const std::string& kept) {
      const auto left = withoutOld_.find(kept);
      return left != withoutOld_.end() && left->second == each;
    });
  }
}

// From now on the file's bytes are not to be lost.
void ModelFileSystem::keep(const HandlePtr& handle) {
  const auto found = local_.find(volumeFile(*handle->file).object->state().number);
  if (found == local_.end() || found->second.bytes.empty() || !isLinked(handle->inode)) return;
  const bool isIts = host_.fileSystem().volume()->look([&](Tree& tree, Nodes&) {
    return tree.find(handle->inode)->object() == volumeFile(*handle->file).object;
  });
  const std::string& bytes = found->second.bytes;
  if (isIts && !gone_.contains(bytes)) precious_.insert(bytes);
}

// ------------------------------------------------------------------------------------------- handles

ModelFileSystem::HandlePtr ModelFileSystem::someHandle(bool writes) {
  std::vector<HandlePtr> some;
  for (const HandlePtr& handle : handles_) {
    if (handle->writes || !writes) some.push_back(handle);
  }
  return some.empty() ? nullptr : some[below(some.size())];
}

ModelFileSystem::HandlePtr ModelFileSystem::openPath(const std::string& path, OpenMode mode) {
  const std::string what = std::string(mode.truncates ? "open and empty "
                                       : mode.writes  ? "open to write "
                                                      : "open ") +
                           path;
  int should = 0;
  const ModelNodePtr node = isExact_ ? names_.find(path, should) : nullptr;
  if (node) should = node->isFolder ? EISDIR : 0;
  std::vector<std::string> goes;
  for (int attempt = 0;; ++attempt) {
    const Walked at = walk(path);
    if (at.error != 0) {
      judge(what, at.error, should);
      return nullptr;
    }
    if (mode.truncates) goes = shown(at.attributes.inode);
    const Awaited<OpenFilePtr> opened;
    host_.fileSystem().open(at.node, mode, Caller(), opened.reply());
    const auto answer = get(opened, Waits::disk);
    // The kernel looks a name up again when a node is gone, once.
    if (errnoOf(answer) == ESTALE && attempt == 0) continue;
    if (!judge(what, errnoOf(answer), should)) return nullptr;
    visited_.pop_back();  // known to the kernel for as long as it is open
    auto handle = std::make_shared<Handle>(
        Handle{answer.value(), at.attributes.inode, path, mode.writes, node});
    handles_.push_back(handle);
    if (mode.truncates) {
      // What others had made of it may have become known after it was shown; it is that which was emptied then.
      const ContentState emptied = volumeFile(*answer.value()).object->state();
      if (const auto old = host_.remote().contentsOfVersion(emptied.version)) goes.push_back(*old);
      forgetContents(goes);
      changed(handle, "", "", {});
    }
    return handle;
  }
}

void ModelFileSystem::open() {
  OpenMode mode;
  mode.writes = percent(50);
  mode.truncates = mode.writes && percent(30);
  if (const HandlePtr handle = openPath(somePath(), mode); handle && percent(30)) close(handle);
}

void ModelFileSystem::close(const HandlePtr& handle) {
  // A program that reads does not close meanwhile.
  for (Reading& reading : readings_) {
    if (reading.handle != handle) continue;
    finishReadings();
    break;
  }
  const Awaited<Done> flushed;
  host_.fileSystem().flush(handle->file, flushed.reply());
  const auto answer = get(flushed, Waits::disk);
  tell("close " + handle->path, errnoOf(answer));
  EXPECT_TRUE(answer.ok());
  if (handle->writes) keep(handle);
  host_.fileSystem().release(handle->file);
  visited_.push_back(handle->file->node);
  std::erase(handles_, handle);
}

void ModelFileSystem::closeSome() {
  if (const HandlePtr handle = someHandle(false)) close(handle);
}

void ModelFileSystem::closeAll() {
  while (!handles_.empty()) close(handles_.back());
}

// ------------------------------------------------------------------------------------------- changes

// The whole file as its next change finds it.
std::string ModelFileSystem::before(const HandlePtr& handle) {
  const ContentState state = volumeFile(*handle->file).object->state();
  const auto bytes = mayBe(handle);
  if (bytes.size() == 1) return bytes.front();
  return contentsOf(state).value_or("");
}

// What was not here before a change may have come, or be another version, by the time it was made.
std::string ModelFileSystem::beforeChange(const HandlePtr& handle, bool wasHere,
                                          const std::string& first, const Change& change) {
  if (wasHere || (isExact_ && handle->model)) return first;
  const FileObjectPtr& object = volumeFile(*handle->file).object;
  const ContentState state = object->state();
  const LocalFilePtr here =
      state.isWhole() ? object->present(0, static_cast<std::size_t>(state.sizeBytes)) : nullptr;
  if (!here) return contentsOf(state).value_or("");
  const std::string now = readLocal(*here, 0, static_cast<std::size_t>(state.sizeBytes));
  for (const std::string& each : host_.remote().contentsSince(state.version)) {
    if (change(each) == now) return each;
  }
  EXPECT_TRUE(change(first) == now)
      << handle->path << " is after a change what it cannot be: " << shortened(now);
  return first;
}

void ModelFileSystem::changed(const HandlePtr& handle, const std::string& was,
                              const std::string& bytes, ByteRange written) {
  forgetContents({was});
  const FileObjectPtr& object = volumeFile(*handle->file).object;
  const auto [found, isNew] = local_.try_emplace(object->state().number);
  Local& local = found->second;
  if (isNew) local.isOld.assign(was.size(), 1);
  local.isOld.resize(bytes.size(), 0);
  std::fill(local.isOld.begin() + written.start, local.isOld.begin() + written.end, '\0');
  local.bytes = bytes;
  std::string& without = withoutOld_[bytes] = bytes;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (local.isOld[i] == 1) without[i] = 0;
  }
  if (isExact_ && handle->model) {
    handle->model->bytes = bytes;
    handle->model->modified.reset();
  }
  for (Reading& reading : readings_) {
    if (volumeFile(*reading.handle->file).object == object) reading.acceptable.push_back(bytes);
  }
}

void ModelFileSystem::write(const HandlePtr& handle, std::int64_t offset, const std::string& text) {
  const bool wasHere = volumeFile(*handle->file).object->state().number != 0;
  const std::string first = before(handle);
  const Awaited<Done> written;
  host_.fileSystem().write(handle->file, offset, std::as_bytes(std::span(text)), written.reply());
  const auto answer = get(written, Waits::disk);
  const std::string what = "write " + std::to_string(text.size()) + " at " +
                           std::to_string(offset) + " of " + handle->path + " (" + shortened(text) +
                           ")";
  if (!judge(what, errnoOf(answer), 0)) return;
  const auto change = [&](std::string bytes) {
    return overwritten(std::move(bytes), offset, text);
  };
  const std::string old = beforeChange(handle, wasHere, first, change);
  const std::string bytes = change(old);
  forgetContents({first});
  changed(handle, old, bytes, {offset, offset + static_cast<std::int64_t>(text.size())});
}

void ModelFileSystem::writeSome() {
  HandlePtr handle = someHandle(true);
  if (!handle) {
    OpenMode mode;
    mode.writes = true;
    handle = openPath(somePath(), mode);
    if (!handle) return;
  }
  const auto attributes = host_.fileSystem().attributes(handle->file->node);
  if (!attributes.ok()) {
    judge("stat an open " + handle->path, errnoOf(attributes), 0);
    return;
  }
  const std::int64_t size = attributes.value().sizeBytes;
  const bool isLinkedStill = isExact_ && handle->model && isLinked(handle->inode);
  if (isLinkedStill) EXPECT_EQ(size, static_cast<std::int64_t>(handle->model->bytes.size()));
  std::int64_t offset = size;  // appended
  if (percent(60)) offset = static_cast<std::int64_t>(below(static_cast<std::size_t>(size) + 20));
  write(handle, offset, newText());
}

void ModelFileSystem::resize() {
  const std::string path = somePath();
  HandlePtr handle = someHandle(true);
  const auto size = static_cast<std::int64_t>(below(80));
  AttributeChanges changes;
  changes.sizeBytes = size;
  const bool isOpened = !handle;
  if (isOpened) {
    OpenMode mode;
    mode.writes = true;
    handle = openPath(path, mode);
    if (!handle) return;
  }
  const bool wasHere = volumeFile(*handle->file).object->state().number != 0;
  const std::string first = before(handle);
  const Awaited<Attributes> set;
  // Through the open file, or by the name.
  const bool byName = percent(50);
  host_.fileSystem().setAttributes(handle->file->node, byName ? nullptr : handle->file, changes,
                                   set.reply());
  const auto answer = get(set, Waits::disk);
  const std::string what = "truncate " + handle->path + " to " + std::to_string(size);
  // By the name what is open of a file without one cannot be reached.
  const bool isGone = byName && !isLinked(handle->inode) && errnoOf(answer) == ESTALE;
  if (isGone ? (tell(what, ESTALE), false) : judge(what, errnoOf(answer), 0)) {
    const auto change = [size](std::string bytes) {
      bytes.resize(static_cast<std::size_t>(size), '\0');
      return bytes;
    };
    const std::string old = beforeChange(handle, wasHere, first, change);
    forgetContents({first});
    changed(handle, old, change(old), {});
  }
  if (isOpened) close(handle);
}

void ModelFileSystem::sync() {
  const HandlePtr handle = someHandle(percent(80));
  if (!handle) return;
  const Awaited<Done> synced;
  host_.fileSystem().sync(handle->file, synced.reply());
  const auto answer = get(synced, Waits::disk);
  tell("fsync " + handle->path, errnoOf(answer));
  EXPECT_TRUE(answer.ok());
  if (handle->writes) keep(handle);
}

// ------------------------------------------------------------------------------------------- reading

void ModelFileSystem::startReading(const HandlePtr& handle, std::int64_t offset,
                                   std::size_t length) {
  Reading reading;
  reading.handle = handle;
  reading.offset = offset;
  reading.length = length;
  checkAgreement(handle);
  reading.acceptable = mayBe(handle);
  reading.version = volumeFile(*handle->file).object->state().version;
  const Reply<std::string> reply = reading.answer.reply();
  if (const LocalFilePtr here = host_.fileSystem().present(*handle->file, offset, length)) {
    reply(readLocal(*here, offset, length));
  } else {
    host_.fileSystem().read(handle->file, offset, length,
                            [reply, offset, length](const Answer<LocalFilePtr>& file) {
                              if (!file.ok()) return reply(file.error());
                              reply(readLocal(*file.value(), offset, length));
                            });
  }
  readings_.push_back(std::move(reading));
}

// Judges it, and whether it brought the bytes.
bool ModelFileSystem::finish(Reading& reading) {
  for (int i = 0; i < 100'000 && !reading.answer.ready(); ++i) {
    host_.remote().releaseAll();
    std::this_thread::sleep_for(std::chrono::microseconds(50));
    // A file that is just moving is asked for again a little later.
    if (i > 40 && i % 20 == 0) host_.timers().advance(std::chrono::milliseconds(10));
  }
  const auto answer = reading.answer.get();
  const HandlePtr& handle = reading.handle;
  const std::string what = "read of " + handle->path;
  if (!answer.ok()) {
    const int error = errnoOf(answer);
    // What was removed while it was open, and had never been fetched, cannot be had any more.
    const bool isGone = !isLinked(handle->inode) && (error == ENOENT || error == ESTALE);
    const bool isDoubtful = !isExact_ && (error == ENOENT || error == ESTALE);
    tell(what, error);
    EXPECT_TRUE(isGone || isDoubtful || (isFaulty_ && isOfWeather(error)))
        << what << ": " << std::strerror(error);
    if (error == ESTALE) counts_.add("stale reads");
    return false;
  }
  checkAgreement(handle);
  for (const std::string& bytes : mayBe(handle)) reading.acceptable.push_back(bytes);
  // It may have been answered with what others had made of it before it was changed here.
  if (!isExact_) {
    for (const std::string& bytes : host_.remote().contentsSince(reading.version))
      reading.acceptable.push_back(bytes);
  }
  tell(what + ": " + shortened(answer.value()));
  counts_.add("reads");
  const bool isRight = std::any_of(
      reading.acceptable.begin(), reading.acceptable.end(), [&](const std::string& bytes) {
        return part(bytes, reading.offset, reading.length) == answer.value();
      });
  EXPECT_TRUE(isRight) << what << " at " << reading.offset << " gave " << shortened(answer.value())
                       << " of "
                       << (reading.acceptable.empty() ? "?" : shortened(reading.acceptable.back()));
  return true;
}

void ModelFileSystem::finishReadings() {
  for (Reading& reading : readings_) finish(reading);
  readings_.clear();
}

void ModelFileSystem::readSome() {
  HandlePtr handle = someHandle(false);
  if (!handle || percent(40)) handle = openPath(somePath(), OpenMode());
  if (!handle) return;
  const bool isWhole = percent(60);
  startReading(handle, isWhole ? 0 : static_cast<std::int64_t>(below(60)),
               isWhole ? 1'000'000 : 1 + below(40));
  counts_.add("reads begun");
  if (percent(60)) finishReadings();
}

}  // namespace kestrune::host::test
