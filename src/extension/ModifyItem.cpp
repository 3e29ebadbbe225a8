#include "extension/ModifyItem.h"

#include <utility>

#include "api/KestruneAPI.h"
#include "extension/ItemPath.h"
#include "extension/SingleUpload.h"
#include "namespace/FileProviderItem.h"
#include "namespace/PinStore.h"
#include "platform/files/FileHandle.h"
#include "platform/values/UUID.h"
#include "status/SyncStatusStore.h"

namespace kestrune {

using platform::NSErrorPtr;
using platform::NSFileProviderItemFields;
using platform::Task;

namespace {

constexpr std::int64_t kPercentWhole = 100;

// The file at `path` is at `newPath` from now on. At no moment is it pinned under neither name.
void movePin(const std::string& path, const std::string& newPath) {
  if (!PinStore::isPinned(path)) return;
  PinStore::setPinned(true, newPath);
  PinStore::setPinned(false, path);
}

// Where the item lies when its place has been seen to.
Task<std::string> moveItem(std::shared_ptr<const Modification> change) {
  std::string path = change->path;
  const auto place =
      NSFileProviderItemFields::filename | NSFileProviderItemFields::parentItemIdentifier;
  if (!platform::contains(change->changedFields, place)) co_return path;
  std::string newPath = pathOfItem(*change->item);
  if (newPath == path) co_return path;
  co_await KestruneAPI::move(path, newPath);
  movePin(path, newPath);
  co_return newPath;
}

Task<void> sendContents(std::shared_ptr<platform::URLSession> session,
                        std::filesystem::path contents, std::string path, std::int64_t size,
                        std::string transferId) {
  PresignResponse presigned = co_await KestruneAPI::presignUpload(path);
  co_await putFile(std::move(session), std::move(presigned.url), std::move(contents));
  SyncStatusStore::shared().update(std::move(transferId), size);
  co_await KestruneAPI::notify(std::move(path), size);
}

Task<void> uploadContents(std::shared_ptr<const Modification> change, std::string path) {
  const auto& contents = change->contents;
  if (!platform::contains(change->changedFields, NSFileProviderItemFields::contents) || !contents)
    co_return;
  const std::int64_t size = platform::attributesOfFile(*contents).size;
  auto& status = SyncStatusStore::shared();
  const std::string transferId = platform::newUUIDString();
  status.begin(transferId, path, size, SyncTransfer::Direction::upload);
  NSErrorPtr failure;
  try {
    co_await sendContents(change->session, *contents, std::move(path), size, transferId);
  } catch (...) {
    failure = platform::currentError();
  }
  status.finish(transferId);
  if (failure) failure->raise();
}

}  // namespace

Task<void> runModification(Modification modification) {
  const auto change = std::make_shared<const Modification>(std::move(modification));
  std::string path;
  NSErrorPtr failure;
  try {
    path = co_await moveItem(change);
    co_await uploadContents(change, path);
  } catch (...) {
    failure = platform::currentError();
  }
  // Answered outside of the try: nothing that a handler does may bring it a second call.
  if (failure) {
    change->completionHandler(nullptr, NSFileProviderItemFields::none, false, failure);
    co_return;
  }
  // The size is what the system believes: the listing says soon what the store has.
  auto item = std::make_shared<FileProviderItem>(std::move(path), isFolder(*change->item),
                                                 change->item->documentSize().value_or(0),
                                                 platform::dateNow());
  change->progress->setCompletedUnitCount(kPercentWhole);
  change->completionHandler(std::move(item), NSFileProviderItemFields::none, false, nullptr);
}

}  // namespace kestrune
