// Answers the system's questions about one folder: its content, what changed since an anchor, the
// present anchor.
//
// The service pushes no changes. An anchor is the invalidation token, a text in a file that some
// other program writes whenever the remote store should be looked at again. While the token stays
// the same, "what changed" is answered at once and without a request; when it differs, the folder
// is listed again and compared with the listing cache. Two guards hold back deletions that may be
// false: while transfers run below the folder none is reported, and names that a second listing
// shows again are dropped.
//
// Special containers (the working set, the trash, and any path that looks like one) are empty and
// never change.
//
// Threads: methods return at once and may be called from any thread; observers are called from a
// task, except for special containers and unchanged tokens, which are answered before the call
// returns. Fails: a failed listing ends enumerateItems with its error; enumerateChanges never ends
// with one: it reports no changes up to the old anchor, so that it is asked again.
#pragma once

#include <string>
#include <vector>

#include "api/KestruneAPI.h"
#include "platform/file_provider/NSFileProviderEnumerator.h"

namespace kestrune {

class FileProviderEnumerator final : public platform::NSFileProviderEnumerator {
 public:
  /// `containerPath`: the remote path of the folder, or the identifier of a special container.
  explicit FileProviderEnumerator(std::string containerPath);

  const std::string& containerPath() const { return containerPath_; }

  /// The invalidation token without white space around it; "initial" where there is none.
  static std::string currentToken();

  void invalidate() override;
  void enumerateItems(std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer,
                      platform::NSFileProviderPage page) override;
  void enumerateChanges(std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
                        platform::NSFileProviderSyncAnchor anchor) override;
  void currentSyncAnchor(std::function<void(std::optional<platform::NSFileProviderSyncAnchor>)>
                             completionHandler) override;

 private:
  const std::string containerPath_;
};

}  // namespace kestrune
