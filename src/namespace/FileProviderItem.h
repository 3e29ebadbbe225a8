// One remote file or folder as the system sees it. Its identifier is its absolute remote path, so
// no table maps identifiers to paths; the root and the two special containers have the platform's
// reserved identifiers.
//
// Items are immutable; a changed remote entry yields a new item. Properties are computed when they
// are read; only the content policy reads anything from outside (the pin store, anew each time).
//
// Threads: may be read from any thread.
#pragma once

#include <cstdint>
#include <string>

#include "api/KestruneAPI.h"
#include "platform/file_provider/NSFileProviderItem.h"

namespace kestrune {

class FileProviderItem final : public platform::NSFileProviderItem {
 public:
  /// `path`: absolute; "" or "/" is the root of the domain. `size` in bytes, as the service says.
  FileProviderItem(std::string path, bool isDir, std::int64_t size, platform::Date modified);

  /// The item of one entry listed in the folder `parentPath`. The name is taken as it is.
  static platform::NSFileProviderItemPtr from(const KestruneAPI::Entry& entry,
                                              const std::string& parentPath);

  /// The remote path that an identifier stands for: "/" for the root container, the identifier
  /// itself for all others, also for the working set and the trash.
  static std::string path(const platform::NSFileProviderItemIdentifier& identifier);

  /// The identifier of the item at `path`: the root container's for "" and "/".
  static platform::NSFileProviderItemIdentifier identifier(const std::string& path);

  /// `parentPath` + "/" + `name` without a doubled slash below the root.
  static std::string childPath(const std::string& parentPath, const std::string& name);

  platform::NSFileProviderItemIdentifier itemIdentifier() const override;
  platform::NSFileProviderItemIdentifier parentItemIdentifier() const override;
  std::string filename() const override;
  std::optional<platform::UTType> contentType() const override;
  std::optional<platform::NSFileProviderItemCapabilities> capabilities() const override;
  std::optional<std::int64_t> documentSize() const override;
  std::optional<platform::Date> contentModificationDate() const override;
  std::optional<platform::Date> creationDate() const override;
  platform::NSFileProviderContentPolicy contentPolicy() const override;
  std::optional<platform::NSFileProviderItemVersion> itemVersion() const override;

 private:
  const std::string path_;
  const bool isDir_;
  const std::int64_t size_;
  const platform::Date modified_;
};

/// Where an item lies: the folder to list and the name to look for in it.
struct ItemLocation {
  std::string parent;  // "/" where the path has no other parent
  std::string name;
  explicit ItemLocation(const std::string& path);
};

/// The first entry with exactly this name, or null.
const KestruneAPI::Entry* findEntry(const std::vector<KestruneAPI::Entry>& entries,
                                    const std::string& name);

}  // namespace kestrune
