#include "service/MultipartUploads.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "service/Limits.h"
#include "service/ServiceError.h"

namespace kestrune::service {
namespace {

/// Each open upload holds a descriptor.
constexpr std::size_t kMaxOpenUploads = 1000;
/// A first part below this is more likely the short last one of a small file than the measure of
/// all.
constexpr std::uint64_t kLeastMeasure = 1U << 20U;
constexpr std::int64_t kAbandonedSeconds = 86'400;

std::string_view withoutQuotes(std::string_view tag) {
  const bool quoted = tag.size() >= 2 && tag.front() == '"' && tag.back() == '"';
  return quoted ? tag.substr(1, tag.size() - 2) : tag;
}

}  // namespace

MultipartUploads::Upload& MultipartUploads::find(const std::string& id) {
  const auto found = uploads_.find(id);
  if (found == uploads_.end() || found->second.aborted) throw notFound();
  return found->second;
}

const MultipartUploads::Upload& MultipartUploads::find(const std::string& id) const {
  const auto found = uploads_.find(id);
  if (found == uploads_.end() || found->second.aborted) throw notFound();
  return found->second;
}

MultipartUploads::Opened MultipartUploads::open(std::int64_t nowSeconds) {
  Opened opened{Staging::newName(), Staging::newName()};
  const platform::MutexLock lock(mutex_);
  if (uploads_.size() >= kMaxOpenUploads) throw ServiceError(503, "too many uploads are open");
  Upload& upload = uploads_[opened.id];
  upload.key = opened.key;
  upload.touched = nowSeconds;
  return opened;
}

void MultipartUploads::check(const std::string& key, const std::string& id,
                             std::int64_t number) const {
  if (number < 1 || number > kMaxPartNumber)
    throw badRequest("the part number must be from 1 to 10000");
  const platform::MutexLock lock(mutex_);
  if (find(id).key != key) throw notFound();
}

MultipartUploads::Slot MultipartUploads::beginPart(const std::string& id, int number,
                                                   std::optional<std::uint64_t> length) {
  const platform::MutexLock lock(mutex_);
  Upload& upload = find(id);
  if (upload.completing) throw conflict("the upload is being completed");
  if (!upload.whole && length && *length >= kLeastMeasure) {
    upload.whole = staging_.newDraft();
    upload.partLength = *length;
  }
  Slot slot;
  slot.number = number;
  const auto before = static_cast<std::uint64_t>(number - 1);
  const bool fits = upload.whole && length && *length == upload.partLength &&
                    before < kMaxUploadBytes / upload.partLength;
  if (fits && upload.taken.insert(number).second) {
    slot.inPlace = true;
    slot.draft = upload.whole;
    slot.offset = before * upload.partLength;
    ++upload.writing;
  } else {
    slot.draft = staging_.newDraft();
  }
  ++upload.receiving;
  return slot;
}

std::string MultipartUploads::finishPart(const std::string& id, const Slot& slot,
                                         std::uint64_t length, std::int64_t nowSeconds) {
  Part part{slot.draft, slot.offset, length, Staging::newName(), slot.inPlace};
  std::string tag = part.tag;
  if (!slot.inPlace) slot.draft->close();
  const platform::MutexLock lock(mutex_);
  Upload& upload = find(id);
  // Complete has looked at the parts already; this one came too late for it.
  if (upload.completing) throw conflict("the upload is being completed");
  --upload.receiving;
  if (slot.inPlace) --upload.writing;
  std::swap(upload.parts[slot.number], part);
  upload.touched = nowSeconds;
  return tag;
}

void MultipartUploads::failPart(const std::string& id, const Slot& slot) {
  if (slot.number == 0) return;
  const platform::MutexLock lock(mutex_);
  const auto found = uploads_.find(id);
  if (found == uploads_.end()) return;
  --found->second.receiving;
  if (!slot.inPlace) return;
  --found->second.writing;
  found->second.taken.erase(slot.number);
}

MultipartUploads::Joining MultipartUploads::beginJoining(const std::string& key,
                                                         const std::string& id,
                                                         const std::vector<NamedPart>& parts) {
  if (parts.empty()) throw badRequest("the list of parts is empty");
  const platform::MutexLock lock(mutex_);
  Upload& upload = find(id);
  if (upload.key != key) throw notFound();
  if (upload.completing) throw conflict("the upload is being completed");
  Joining joining{upload.whole, false, {}};
  int previous = 0;
  for (const NamedPart& named : parts) {
    if (named.number <= previous) throw badRequest("the parts are not in ascending order");
    previous = named.number;
    const auto found = upload.parts.find(named.number);
    if (found == upload.parts.end() || found->second.tag != withoutQuotes(named.tag)) {
      throw badRequest("the list names a part that was not uploaded");
    }
    joining.parts.push_back(found->second);
  }
  const auto isInPlace = [](const Part& part) { return part.inPlace; };
  const auto named = std::count_if(joining.parts.begin(), joining.parts.end(), isInPlace);
  const auto all = std::count_if(upload.parts.begin(), upload.parts.end(),
                                 [](const auto& part) { return part.second.inPlace; });
  joining.wholeIsOurs = upload.writing == 0 && named == all;
  upload.completing = true;
  return joining;
}

std::shared_ptr<Draft> MultipartUploads::join(const Joining& joining) const {
  // The common draft is the object if every part in it lies where it belongs. What fails later, a
  // full disk for example, must not have cost another part: the client may try again.
  bool wholeFits = joining.whole && joining.wholeIsOurs;
  std::uint64_t total = 0;
  for (const Part& part : joining.parts) {
    if (part.inPlace && part.offset != total) wholeFits = false;
    total += part.length;
    if (total > kMaxUploadBytes) throw ServiceError(413, "the file is too large");
  }
  std::shared_ptr<Draft> object =
      wholeFits ? joining.whole : std::shared_ptr<Draft>(staging_.newDraft());
  std::uint64_t offset = 0;
  for (const Part& part : joining.parts) {
    if (part.draft != object) object->copyFrom(*part.draft, part.offset, part.length, offset);
    offset += part.length;
  }
  object->truncate(total);
  return object;
}

void MultipartUploads::complete(const std::string& key, const std::string& id,
                                const std::vector<NamedPart>& parts) {
  const Joining joining = beginJoining(key, id, parts);
  std::shared_ptr<Draft> object;
  std::exception_ptr failure;
  try {
    object = join(joining);
  } catch (...) {
    failure = std::current_exception();
  }
  decltype(uploads_)::node_type ended;  // Its drafts are removed after the lock is released.
  // The object appears under the lock: `abort` finds either the upload or the object, and what it
  // forgets stays forgotten.
  const platform::MutexLock lock(mutex_);
  Upload& upload = uploads_.at(id);
  upload.completing = false;
  if (upload.aborted) {
    ended = uploads_.extract(id);
    throw notFound();
  }
  if (failure) std::rethrow_exception(failure);
  staging_.keep(*object, key);
  ended = uploads_.extract(id);
}

void MultipartUploads::abort(const std::string& key, const std::string& id) {
  decltype(uploads_)::node_type ended;  // Its drafts are removed after the lock is released.
  const platform::MutexLock lock(mutex_);
  const auto found = uploads_.find(id);
  if (found == uploads_.end() || found->second.key != key) {
    staging_.discard(key);
  } else if (found->second.completing) {
    found->second.aborted = true;
  } else {
    ended = uploads_.extract(found);
  }
}

void MultipartUploads::sweep(std::int64_t nowSeconds) {
  std::vector<Upload> forgotten;
  const platform::MutexLock lock(mutex_);
  for (auto upload = uploads_.begin(); upload != uploads_.end();) {
    const bool abandoned = nowSeconds - upload->second.touched >= kAbandonedSeconds &&
                           !upload->second.completing && upload->second.receiving == 0;
    if (abandoned) forgotten.push_back(std::move(upload->second));
    upload = abandoned ? uploads_.erase(upload) : std::next(upload);
  }
}

}  // namespace kestrune::service
