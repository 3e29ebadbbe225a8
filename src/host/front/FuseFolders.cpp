// Folders as they are read.

#include <algorithm>
#include <string>
#include <vector>

#include "host/front/FuseRequest.h"

namespace kestrune::host {

namespace {

void openFolder(fuse_req_t request, fuse_ino_t folder, fuse_file_info* info) {
  Dispatcher& dispatcher = dispatcherOf(request);
  auto call = beginCall(request, Effect::looks);
  if (!call) return;
  fuse_file_info answered = *info;
  answered.cache_readdir = 1;
  answered.keep_cache = 1;
  dispatcher.openFolder(folder, [call, request, answered](const Answer<Done>& answer) {
    if (!call->claim()) return;
    if (answer.ok()) {
      fuse_reply_open(request, &answered);
    } else {
      replyError(request, *answer.error());
    }
  });
}

// Encodes the entries of a folder as long as the kernel's buffer has room.
class EntryBuffer final : public FolderSink {
 public:
  EntryBuffer(fuse_req_t request, std::size_t size, bool plus)
      : request_(request), plus_(plus), bytes_(size) {}

  bool add(const FolderEntry& entry) override {
    name_.assign(entry.name);
    const fuse_entry_param parameters = parametersOf(entry.entry);
    char* const place = bytes_.data() + used_;
    const std::size_t room = bytes_.size() - used_;
    const auto offset = static_cast<off_t>(entry.cookie);
    const std::size_t needed =
        plus_ ? fuse_add_direntry_plus(request_, place, room, name_.c_str(), &parameters, offset)
              : fuse_add_direntry(request_, place, room, name_.c_str(), &parameters.attr, offset);
    if (needed > room) return false;
    used_ += needed;
    if (plus_ && entry.entry.node != 0) remembered_.push_back(entry.entry.node);
    return true;
  }

  /// Ends the request.
  void reply(Dispatcher& dispatcher) {
    if (fuse_reply_buf(request_, bytes_.data(), used_) == 0) return;
    for (const NodeId node : remembered_) dispatcher.forget(node, 1);
  }

 private:
  const fuse_req_t request_;
  const bool plus_;
  std::vector<char> bytes_;
  std::size_t used_ = 0;
  std::string name_;  // ended by a NUL, as the library wants it
  std::vector<NodeId> remembered_;
};

void readEntries(fuse_req_t request, fuse_ino_t folder, std::size_t size, off_t after, bool plus) {
  Dispatcher& dispatcher = dispatcherOf(request);
  EntryBuffer buffer(request, std::min(size, kLargestTransfer), plus);
  const auto error = dispatcher.readFolder(folder, static_cast<std::uint64_t>(after), plus, buffer);
  if (error) {
    replyError(request, *error);
  } else {
    buffer.reply(dispatcher);
  }
}

void readFolder(fuse_req_t request, fuse_ino_t folder, std::size_t size, off_t after,
                fuse_file_info*) {
  readEntries(request, folder, size, after, false);
}

void readFolderPlus(fuse_req_t request, fuse_ino_t folder, std::size_t size, off_t after,
                    fuse_file_info*) {
  readEntries(request, folder, size, after, true);
}

void syncFolder(fuse_req_t request, fuse_ino_t folder, int, fuse_file_info*) {
  auto call = beginCall(request, Effect::changes);
  if (!call) return;
  dispatcherOf(request).syncFolder(folder, replyingDone(request, call));
}

}  // namespace

void addFolderOperations(fuse_lowlevel_ops& operations) {
  operations.opendir = &openFolder;
  operations.readdir = &readFolder;
  operations.readdirplus = &readFolderPlus;
  operations.fsyncdir = &syncFolder;
}

}  // namespace kestrune::host
