#include "host/tree/Item.h"

namespace kestrune::host {

// A million of them are known at once.
static_assert(sizeof(Item) <= 72);

Item::Item(ItemId number, bool folder) : id(number), isFolder(folder) {
  if (folder) work().part = std::make_unique<FolderPart>();
}

bool Item::isEdited() const {
  const ContentRow* row = content();
  return row != nullptr && row->state.edits != row->sentEdits;
}

bool Item::isAtPlaceThere() const {
  if (folder == nullptr) return false;
  const ThereView view = *there;
  return folder->id == view.folder && name() == view.name;
}

bool Item::isWhole() const {
  return content() != nullptr && content()->state.isWhole() && !isBeingEvicted;
}

ItemTimes Item::times() const {
  const FileTime one = modified();
  return work_ ? work_->times.value_or(ItemTimes{one, one, one}) : ItemTimes{one, one, one};
}

void Item::setTimes(const ItemTimes& times) {
  modified_ = PackedTime(times.modified);
  const bool isOne = times.accessed == times.modified && times.changed == times.modified;
  if (!isOne) {
    work().times = times;
  } else if (work_) {
    work_->times.reset();
    dropEmptyWork();
  }
}

void Item::setContent(std::unique_ptr<ContentRow> content) {
  if (!content && !work_) return;
  work().content = std::move(content);
  dropEmptyWork();
}

const FileObjectPtr& Item::object() const {
  static const FileObjectPtr none;
  return work_ ? work_->object : none;
}

void Item::setObject(FileObjectPtr object) {
  if (!object && !work_) return;
  work().object = std::move(object);
  dropEmptyWork();
}

void Item::setAwaited(std::optional<Place> place) {
  if (!place && !work_) return;
  work().awaited = place ? std::make_unique<const Place>(std::move(*place)) : nullptr;
  dropEmptyWork();
}

void Item::setSentAt(std::uint64_t moment) {
  if (moment == 0 && !work_) return;
  work().sentAt = moment;
  dropEmptyWork();
}

Item::Work& Item::work() {
  if (!work_) work_ = std::make_unique<Work>();
  return *work_;
}

void Item::dropEmptyWork() {
  if (work_->isEmpty()) work_ = nullptr;
}

// What is still remembered of a change that ended tells what is old of the answers to come.
bool Item::Work::isEmpty() const {
  return !part && !content && !object && !awaited && sentAt == 0 && begunAt == 0 &&
         uploadedSeconds == 0 && !times;
}

}  // namespace kestrune::host
