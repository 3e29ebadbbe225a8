#include "desktop/StateWord.h"

namespace kestrune::desktop {

const char* stateWord(const host::ItemState& state) {
  if (state.pending) return state.pending->isRefused ? "failing" : "sending";
  if (state.isConflictCopy) return "conflict";
  if (state.isFolder) return "folder";
  if (state.bytesHere >= state.sizeBytes) return state.isPinned ? "kept" : "here";
  return state.bytesHere > 0 ? "partly" : "online-only";
}

}  // namespace kestrune::desktop
