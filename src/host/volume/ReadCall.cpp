#include "host/volume/ReadCall.h"

#include <cerrno>
#include <utility>

#include "host/basics/ErrorToErrno.h"
#include "host/volume/OpenVolumeFile.h"

namespace kestrune::host {

ReadCall::ReadCall(std::shared_ptr<Volume> volume, std::shared_ptr<FolderLister> lister,
                   OpenFilePtr file, Range range, Reply<LocalFilePtr> reply)
    : volume_(std::move(volume)),
      lister_(std::move(lister)),
      file_(std::move(file)),
      range_(range),
      reply_(std::move(reply)) {}

ReadCall::Whereabouts ReadCall::whereabouts() const {
  return volume_->look([this](Tree& tree, Nodes&) {
    Whereabouts found;
    const Item* item = tree.find(volumeFile(*file_).item);
    if (item == nullptr || !item->there) return found;
    found.identifier = item->there->identifier;
    found.isMoving = tree.isMoving(*item);
    if (tree.isSure(*item)) return found;
    found.staleFolder = item->there->folder;
    for (const Item* at = tree.find(found.staleFolder); at != nullptr && !at->isRoot() && at->there;
         at = tree.find(at->there->folder)) {
      if (at->part()->listing.hasStaleIdentifiers) found.staleFolder = at->id;
    }
    return found;
  });
}

void ReadCall::begin() {
  first_ = whereabouts();
  readAfterListing(first_.staleFolder);
}

// Identifiers in a folder that just moved are not known yet: its listing tells them.
void ReadCall::readAfterListing(ItemId stale) {
  if (stale == 0) {
    read();
    return;
  }
  lister_->list(stale, [self = shared_from_this()](const Answer<Done>& listed) {
    if (!listed.ok()) return self->reply_(listed.error());
    self->read();
  });
}

void ReadCall::read() {
  const OpenVolumeFile& opened = volumeFile(*file_);
  opened.object->read(range_.offset, range_.length, opened.mayFetch,
                      [self = shared_from_this()](Answer<LocalFilePtr> answer) {
                        if (answer.ok() || !self->hasMoved(*answer.error()))
                          return self->reply_(std::move(answer));
                        self->lister_->pause([self](const Answer<Done>& paused) {
                          if (!paused.ok()) return self->reply_(paused.error());
                          self->readAfterListing(self->whereabouts().staleFolder);
                        });
                      });
}

// Whether it was not found because it has another identifier by now, or is getting one.
bool ReadCall::hasMoved(const platform::NSError& error) {
  const int number = errnoFor(error);
  if ((number != ENOENT && number != EAGAIN) || ++attempts_ > kMostAttempts) return false;
  const Whereabouts now = whereabouts();
  return now.identifier &&
         (now.isMoving || now.staleFolder != 0 || now.identifier != first_.identifier);
}

}  // namespace kestrune::host
