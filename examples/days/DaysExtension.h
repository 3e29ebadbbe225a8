// A folder of days: one text file for each day of a month, made when it is read. Read-only, and the same for ever.
//
// Threads: any; it keeps nothing.
#pragma once

#include <memory>
#include <string>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace days {

class DaysExtension final : public kestrune::platform::NSFileProviderReplicatedExtension {
 public:
  void invalidate() override {}

  kestrune::platform::NSProgressPtr item(
      kestrune::platform::NSFileProviderItemIdentifier identifier,
      kestrune::platform::NSFileProviderRequest request, ItemHandler completionHandler) override;

  kestrune::platform::NSProgressPtr fetchContents(
      kestrune::platform::NSFileProviderItemIdentifier itemIdentifier,
      std::optional<kestrune::platform::NSFileProviderItemVersion> requestedVersion,
      kestrune::platform::NSFileProviderRequest request,
      ContentsHandler completionHandler) override;

  std::shared_ptr<kestrune::platform::NSFileProviderEnumerator> enumerator(
      kestrune::platform::NSFileProviderItemIdentifier containerItemIdentifier,
      kestrune::platform::NSFileProviderRequest request) override;
};

}  // namespace days
