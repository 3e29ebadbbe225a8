#include "host/content/ContentRecovery.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>

#include "host/content/RangeLog.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

using platform::NSPOSIXError;

constexpr std::int64_t kEndOfAll = std::numeric_limits<std::int64_t>::max();

// Removes from `present` what is a hole of `file` before `end`.
void dropHoles(int file, std::int64_t end, Ranges& present) {
  std::int64_t position = 0;
  while (position < end) {
    off_t data = ::lseek(file, position, SEEK_DATA);
    if (data < 0 && errno == ENXIO) data = end;
    if (data < 0) throw NSPOSIXError(errno, "find the bytes of a file");
    present.remove({position, std::min<std::int64_t>(data, end)});
    if (data >= end) return;
    const off_t hole = ::lseek(file, data, SEEK_HOLE);
    if (hole < 0) throw NSPOSIXError(errno, "find the holes of a file");
    position = hole;
  }
}

// What lies beyond the remembered end was written after it was remembered.
void followLength(std::int64_t lengthOnDisk, ContentState& state) {
  if (lengthOnDisk >= state.sizeBytes) {
    state.present.add({state.sizeBytes, lengthOnDisk});
    state.sizeBytes = lengthOnDisk;
  } else {
    state.sizeBytes = std::max(lengthOnDisk, std::min(state.sizeBytes, state.fetchableBytes));
  }
  state.present.remove({lengthOnDisk, kEndOfAll});
  state.fetchableBytes = std::min(state.fetchableBytes, state.sizeBytes);
}

void recoverEdited(const std::shared_ptr<ContentDirectory>& directory, ContentState& state) {
  LocalFilePtr file = directory->open(state.number);
  if (!file) file = directory->create(state.number);
  RangeLog log(directory, state.number);
  log.replay(state, file->sizeBytes());
  followLength(file->sizeBytes(), state);
  if (file->sizeBytes() != state.sizeBytes && ::ftruncate(file->descriptor(), state.sizeBytes) != 0)
    throw NSPOSIXError(errno, "mend the length of a changed file");
  // Beyond what the store has, zeros that were never written are holes as well.
  dropHoles(file->descriptor(), state.fetchableBytes, state.present);
}

}  // namespace

ContentState recoveredState(const std::shared_ptr<ContentDirectory>& directory,
                            ContentState state) {
  if (state.isEdited) {
    if (state.number != 0) recoverEdited(directory, state);
    return state;
  }
  state.fetchableBytes = state.sizeBytes;
  const LocalFilePtr file = state.number == 0 ? nullptr : directory->open(state.number);
  if (file && file->sizeBytes() == state.sizeBytes) {
    RangeLog(directory, state.number).clear();  // of changes that were sent
    dropHoles(file->descriptor(), state.sizeBytes, state.present);
  } else {
    if (state.number != 0) directory->remove(state.number);
    state.number = 0;
    state.present = {};
  }
  return state;
}

}  // namespace kestrune::host
