// One file or folder, as an extension describes it to the host: a snapshot that never changes,
// although a property may be computed when it is read.
//
// A property that the platform declares as optional is an std::optional here; an empty one also
// stands for "does not answer to it", which templates of new items may do.
//
// Threads: properties may be read on any thread; reading one may do short file input (never
// network).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/file_provider/NSFileProviderTypes.h"
#include "platform/files/UTType.h"
#include "platform/values/Date.h"

namespace kestrune::platform {

class NSFileProviderItem {
 public:
  virtual ~NSFileProviderItem() = default;

  virtual NSFileProviderItemIdentifier itemIdentifier() const = 0;
  /// The root container's parent is the root container.
  virtual NSFileProviderItemIdentifier parentItemIdentifier() const = 0;
  /// As the extension's remote side names it. Hosts treat it as hostile.
  virtual std::string filename() const = 0;

  virtual std::optional<UTType> contentType() const { return std::nullopt; }
  virtual std::optional<NSFileProviderItemCapabilities> capabilities() const {
    return std::nullopt;
  }
  /// In bytes; none for folders. May be negative or absurd where the remote side is.
  virtual std::optional<std::int64_t> documentSize() const { return std::nullopt; }
  virtual std::optional<Date> contentModificationDate() const { return std::nullopt; }
  virtual std::optional<Date> creationDate() const { return std::nullopt; }
  /// Throws NSError where the item was described by an extension that has to be asked and is gone.
  virtual NSFileProviderContentPolicy contentPolicy() const {
    return NSFileProviderContentPolicy::inherited;
  }
  virtual std::optional<NSFileProviderItemVersion> itemVersion() const { return std::nullopt; }
};

using NSFileProviderItemPtr = std::shared_ptr<const NSFileProviderItem>;

}  // namespace kestrune::platform
