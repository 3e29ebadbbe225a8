// What the volume knows of an open file.
#pragma once

#include <atomic>
#include <string>
#include <utility>

#include "host/content/FileObject.h"
#include "host/front/Dispatcher.h"

namespace kestrune::host {

struct OpenVolumeFile final : OpenFile {
  OpenVolumeFile(NodeId nodeId, ItemId itemId, FileObjectPtr fileObject, bool forWriting,
                 bool fetches, std::string programName = {})
      : OpenFile(nodeId),
        item(itemId),
        object(std::move(fileObject)),
        writes(forWriting),
        mayFetch(fetches),
        program(std::move(programName)) {}
  const ItemId item;
  const FileObjectPtr object;
  const bool writes;
  const bool mayFetch;
  /// Who opened it, by the name of the executable; empty where it could not be told.
  const std::string program;
  /// Whether something was read by it; the first read alone asks who causes a fetch.
  mutable std::atomic_flag wasRead;
};

/// REQUIRES: `file` was opened by a volume.
inline const OpenVolumeFile& volumeFile(const OpenFile& file) {
  return static_cast<const OpenVolumeFile&>(file);
}

}  // namespace kestrune::host
