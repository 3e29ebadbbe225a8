// What the contents of all files use of the host around them.
//
// Threads: the functions are called without a lock held, from any thread, and may call back.
#pragma once

#include <functional>
#include <memory>

#include "host/basics/Answer.h"
#include "host/basics/NodeId.h"
#include "host/basics/Timers.h"
#include "host/content/ContentDirectory.h"
#include "host/content/ContentState.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace kestrune::host {

struct FileObjectServices {
  std::shared_ptr<platform::NSFileProviderReplicatedExtension> extension;
  std::shared_ptr<ContentDirectory> directory;
  std::shared_ptr<Timers> timers;

  /// A number that was never given before.
  std::function<ContentNumber()> newNumber;
  /// What can be fetched of the item now; the error says why nothing can (ENOENT: it is not at the store). Asked before
  /// each fetch, and before the first change of what has nothing here.
  std::function<Answer<ContentSource>(InodeNumber item)> source;
  /// Commits `state`, whose `edits` is one higher than before, then answers.
  std::function<void(InodeNumber item, const ContentState& state, Reply<Done> reply)> willEdit;
  /// It could not be committed: there is no such edit, though its number is used up. Told before anything else of the file is.
  std::function<void(InodeNumber item, const ContentState& state)> couldNotEdit;
  /// The state changed (ranges came, size of an edited file): to be remembered some time soon. For writes it comes within
  /// kTellAfter, when a writer closes, and before a flush is answered; a crash before loses nothing.
  std::function<void(InodeNumber item, const ContentState& state)> changed;
  /// Told before anybody gets bytes of a file whose length is not the one that was listed. Runs `then` when the kernel knows.
  std::function<void(InodeNumber item, std::int64_t sizeBytes, std::function<void()> then)> resized;
  /// Told whenever a fetch begins (+1) and ends (-1).
  std::function<void(InodeNumber item, int step)> fetching;
  std::function<void(InodeNumber item, const platform::NSError& error)> fetchFailed;
  /// The store has another version than the one that was asked for: `now`, or null where the extension did not say which.
  /// If `source` tells the new version when this returns, an object that has nothing yet goes on with it.
  std::function<void(InodeNumber item, const platform::NSFileProviderItemPtr& now)> versionGone;
};

}  // namespace kestrune::host
