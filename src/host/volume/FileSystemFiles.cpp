// Open files: their bytes, read and changed.
#include <cerrno>
#include <filesystem>
#include <utility>

#include "host/volume/FileSystem.h"
#include "host/volume/OpenVolumeFile.h"
#include "host/volume/ReadCall.h"

namespace kestrune::host {

namespace {

using platform::NSErrorPtr;
using platform::NSPOSIXError;

NSErrorPtr errorOf(int number, const char* what) { return NSPOSIXError(number, what).share(); }

// What was read is remembered for choosing what goes first when room is needed; a minute is exact enough.
constexpr std::int64_t kUsedGrainSeconds = 60;

}  // namespace

std::set<std::string> defaultLookersOn() {
  return {"tumblerd",
          "ffmpegthumbnailer",
          "gdk-pixbuf-thumbnailer",
          "evince-thumbnailer",
          "totem-video-thumbnailer",
          "kioslave5",
          "thumbnail.so",
          "tracker-miner-fs-3",
          "tracker-extract-3",
          "localsearch-3",
          "localsearch-extractor-3",
          "baloo_file",
          "baloo_file_extractor",
          "recollindex",
          "updatedb.plocate",
          "updatedb.mlocate",
          "updatedb",
          "clamscan",
          "clamdscan",
          "clamd",
          "deja-dup-monitor"};
}

FileSystem::Opener FileSystem::openerOf(Caller caller) const {
  if (caller.process == 0) return {};
  std::error_code error;
  const auto executable =
      std::filesystem::read_symlink("/proc/" + std::to_string(caller.process) + "/exe", error);
  if (error) return {};
  std::string name = executable.filename().string();
  // A program that was replaced while it ran.
  if (const auto at = name.rfind(" (deleted)"); at != std::string::npos) name.resize(at);
  const bool mayFetch = !options_.lookersOn.contains(name);
  return {std::move(name), mayFetch};
}

// REQUIRES: the volume's lock.
Answer<OpenFilePtr> FileSystem::openItem(Tree& tree, Nodes& nodes, NodeId node, OpenMode mode,
                                         const Opener& opener) {
  const Node* found = nodes.find(node);
  Item* item = found == nullptr || found->detached ? nullptr : tree.find(found->item);
  if (item == nullptr) return errorOf(ESTALE, "open a version that is gone");
  if (item->isFolder) return errorOf(EISDIR, "open a folder as a file");
  FileObjectPtr object;
  try {
    object = contents_->objectOf(*item);
  } catch (const platform::NSError& error) {
    return error.share();
  }
  object->opened(mode.writes);
  nodes.opened(node);
  auto file = std::make_shared<OpenVolumeFile>(node, item->id, object, mode.writes, opener.mayFetch,
                                               opener.program);
  file->listedEmpty = item->there && !item->content() && object->sizeBytes() == 0;
  if (!mode.writes) file->whole = object->whole();
  return OpenFilePtr(std::move(file));
}

void FileSystem::open(NodeId node, OpenMode mode, Caller caller, Reply<OpenFilePtr> reply) {
  const Opener opener = openerOf(caller);
  auto answer = volume_->look(
      [&](Tree& tree, Nodes& nodes) { return openItem(tree, nodes, node, mode, opener); });
  if (!answer.ok() || !mode.truncates) {
    reply(std::move(answer));
    return;
  }
  const OpenFilePtr file = answer.value();
  resize(file, node, 0, unlessEnded(reply, [this, file, reply](const Answer<Done>& done) {
           if (done.ok()) return reply(file);
           release(file);
           reply(done.error());
         }));
}

LocalFilePtr FileSystem::present(const OpenFile& file, std::int64_t offset, std::size_t length) {
  return volumeFile(file).object->present(offset, length);
}

void FileSystem::read(OpenFilePtr file, std::int64_t offset, std::size_t length,
                      Reply<LocalFilePtr> reply) {
  const OpenVolumeFile& opened = volumeFile(*file);
  if (opened.mayFetch && !opened.wasRead.test_and_set() &&
      opened.object->state().present.byteCount() == 0) {
    fetchCauses_->note(opened.item, {DownloadCause::Kind::program, opened.program,
                                     volume_->services().clock->now()});
  }
  const ReadCall::Range range{offset, length};
  std::make_shared<ReadCall>(volume_, lister_, std::move(file), range, std::move(reply))->begin();
}

void FileSystem::release(OpenFilePtr file) {
  const OpenVolumeFile& opened = volumeFile(*file);
  opened.object->closed(opened.writes);
  const std::int64_t now =
      std::chrono::floor<std::chrono::seconds>(volume_->services().clock->now())
          .time_since_epoch()
          .count();
  // Where a fetch is ending, what it brings is kept.
  const bool isFetched = refresher_->isFetching(opened.item);
  volume_->change([&](Tree& tree, Nodes& nodes) {
    nodes.released(opened.node, tree);
    Item* item = tree.find(opened.item);
    if (item == nullptr || item->object() != opened.object) return;
    if (item->content() && now - item->content()->usedSeconds > kUsedGrainSeconds) {
      item->content()->usedSeconds = now;
      tree.changedHere(*item);
    }
    if (opened.object->isOpen()) return;
    if (!item->isLinked() && !item->there) {
      tree.forgetIfGone(*item);
    } else if (!item->content() && !isFetched && item->object().use_count() == 2) {
      // This file's and the item's: nothing of it is here, and nobody works on it.
      item->setObject(nullptr);
    }
  });
  if (opened.writes) sender_->closed(opened.item);
}

// ------------------------------------------------------------------------------------------- changes of bytes

void FileSystem::wrote(const OpenFile& file) {
  const OpenVolumeFile& opened = volumeFile(file);
  const FileTime now = FileTime::of(volume_->services().clock->now());
  volume_->look([&](Tree& tree, Nodes&) {
    Item* item = tree.find(opened.item);
    if (item == nullptr || item->object() != opened.object) return;
    item->setTimes({item->times().accessed, now, now});
  });
}

void FileSystem::write(OpenFilePtr file, std::int64_t offset, std::span<const std::byte> bytes,
                       Reply<Done> reply) {
  const OpenVolumeFile& opened = volumeFile(*file);
  opened.object->write(offset, bytes,
                       unlessEnded(reply, [this, file, reply](const Answer<Done>& done) {
                         if (done.ok()) wrote(*file);
                         reply(done);
                       }));
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the interface is the dispatcher's
void FileSystem::resize(OpenFilePtr file, NodeId, std::int64_t sizeBytes, Reply<Done> reply) {
  const OpenVolumeFile& opened = volumeFile(*file);
  opened.object->resize(sizeBytes,
                        unlessEnded(reply, [this, file, reply](const Answer<Done>& done) {
                          if (done.ok()) wrote(*file);
                          reply(done);
                        }));
}

void FileSystem::reserve(OpenFilePtr file, std::int64_t offset, std::int64_t length, bool keepsSize,
                         Reply<Done> reply) {
  volumeFile(*file).object->reserve(
      offset, length, keepsSize,
      unlessEnded(reply, [this, file, keepsSize, reply](const Answer<Done>& done) {
        if (done.ok() && !keepsSize) wrote(*file);
        reply(done);
      }));
}

void FileSystem::flush(OpenFilePtr file, Reply<Done> reply) {
  const OpenVolumeFile& opened = volumeFile(*file);
  if (!opened.writes) {
    reply(Done());
    return;
  }
  auto work = [&](Tree& tree, Nodes&) -> NSErrorPtr {
    Item* item = tree.find(opened.item);
    if (item == nullptr || item->object() != opened.object) return nullptr;
    const ContentState state = withWhatIsKnown(*item, opened.object->state());
    if (state.number != 0) tree.setContent(*item, state);
    tree.changedHere(*item);
    return nullptr;
  };
  volume_->change(work, Volume::Survives::processEnd, reply);
}

// Data first, then what is remembered of it.
void FileSystem::sync(OpenFilePtr file, Reply<Done> reply) {
  volumeFile(*file).object->flushToDisk(
      unlessEnded(reply, [this, file, reply](const Answer<Done>& flushed) {
        if (!flushed.ok()) return reply(flushed.error());
        flush(file, unlessEnded(reply, [this, reply](const Answer<Done>& remembered) {
                if (!remembered.ok()) return reply(remembered.error());
                volume_->commitAll(Volume::Survives::powerCut, reply);
              }));
      }));
}

void FileSystem::syncFolder(NodeId, Reply<Done> reply) {
  volume_->commitAll(Volume::Survives::powerCut, std::move(reply));
}

}  // namespace kestrune::host
