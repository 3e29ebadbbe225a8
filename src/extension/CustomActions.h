// The actions of the context menu: copying web links, making items online-only (evicted, then
// unpinned), downloading them now and keeping them (pinned, then asked for). An action is
// recognised by the end of its identifier, so that any prefix may stand before it.
//
// Items are treated one after the other; one that fails is logged and does not stop the others.
//
// Threads: the task runs on the shared executor; the pasteboard is written on the main thread.
#pragma once

#include <string>
#include <vector>

#include "platform/file_provider/NSFileProviderManager.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/tasks/Task.h"

namespace kestrune {

/// What one action works with. All of it is kept until the task ends.
struct ActionRun {
  std::string identifier;
  std::vector<platform::NSFileProviderItemIdentifier> items;
  platform::NSFileProviderDomainPtr domain;
  /// Total: the number of items, or 1.
  platform::NSProgressPtr progress;
  /// Called exactly once, from the task.
  platform::NSFileProviderReplicatedExtension::DoneHandler completionHandler;
};

/// Runs one action to its end. The task fails with nothing. The completion handler gets
/// NSFileProviderError providerNotFound where the domain has no manager, the pasteboard's error
/// where a link could not be copied, or the last error of an item's eviction or download; an
/// unknown action succeeds without doing anything.
platform::Task<void> runAction(ActionRun action);

}  // namespace kestrune
