#include "host/volume/EditNotes.h"

#include <utility>

#include "host/content/EditDescription.h"

namespace kestrune::host {

using platform::MutexLock;

EditNotes::EditNotes(std::shared_ptr<ContentDirectory> directory, std::shared_ptr<HostLog> log)
    : directory_(std::move(directory)), log_(std::move(log)) {
  MutexLock lock(mutex_);
  for (const ContentNumber number : directory_->notedEdits()) noted_[number];
}

void EditNotes::gather(const Tree& tree, const TreeEffects& effects) {
  MutexLock lock(mutex_);
  for (const ItemId id : effects.changed) {
    if (const Item* item = tree.find(id)) gather(tree, *item);
  }
  for (const ItemId id : effects.movedFolders) {
    const Item* folder = tree.find(id);
    if (folder == nullptr) continue;
    for (const ItemId differing : tree.differing()) {
      const Item* item = tree.find(differing);
      if (Tree::isWithin(*item, *folder)) gather(tree, *item);
    }
  }
  for (const ContentNumber number : effects.dropped) forget(number);
  for (const FileObjectPtr& object : effects.abandoned) forget(object->state().number);
}

void EditNotes::gather(const Tree& tree, const Item& item) {
  if (!item.content() || item.content()->state.number == 0) return;
  const ContentRow& row = *item.content();
  const ContentNumber number = row.state.number;
  const bool isEmpty = row.state.sizeBytes == 0 && !item.there;
  if (!item.isLinked() || !item.isEdited() || isEmpty) return forget(number);
  std::string text =
      EditDescription{tree.path(item),          item.there ? row.base : std::string(),
                      item.isExecutable,        row.state.sizeBytes,
                      row.state.fetchableBytes, row.state.present}
          .text();
  std::string& noted = noted_[number];
  if (noted == text) return;
  pending_[number] = text;
  noted = std::move(text);
}

void EditNotes::forget(ContentNumber number) {
  if (noted_.erase(number) != 0) pending_[number] = std::nullopt;
}

void EditNotes::write() {
  {
    MutexLock lock(mutex_);
    if (pending_.empty()) return;
  }
  MutexLock writing(writing_);
  std::map<ContentNumber, std::optional<std::string>> pending;
  {
    MutexLock lock(mutex_);
    pending.swap(pending_);
  }
  for (const auto& [number, text] : pending) {
    if (!text) {
      directory_->forgetEdit(number);
      continue;
    }
    try {
      directory_->noteEdit(number, *text);
    } catch (const platform::NSError& error) {
      log_->failure("note", "note an unsent change beside its contents",
                    error.localizedDescription());
    }
  }
}

}  // namespace kestrune::host
