// What the console prints of the values that an extension hands over.
//
// Threads: all functions may be called from any thread. Reading an item's properties may do short
// file input.
#pragma once

#include <optional>
#include <vector>

#include "companion/console/ConsoleWriter.h"
#include "platform/file_provider/NSFileProviderItem.h"
#include "platform/progress/NSProgress.h"
#include "platform/values/NSError.h"

namespace kestrune {

/// Null for no item. Optional properties that the item does not answer to are null too.
OrderedJson itemJson(const platform::NSFileProviderItemPtr& item);
OrderedJson itemsJson(const std::vector<platform::NSFileProviderItemPtr>& items);

/// Null for no error. "case" for the extension's own error types, which are enumerations of cases;
/// "status" for an HTTP answer among them.
OrderedJson errorJson(const platform::NSErrorPtr& error);

/// Null for no progress.
OrderedJson progressJson(const std::optional<platform::NSProgress::Snapshot>& progress);

/// Adds "anchor"; where its bytes are not UTF-8, "anchor" is null and "anchorBase64" carries them.
void addAnchor(OrderedJson& fields,
               const std::optional<platform::NSFileProviderSyncAnchor>& anchor);

/// Null for no range.
OrderedJson rangeJson(const std::optional<platform::NSRange>& range);

}  // namespace kestrune
