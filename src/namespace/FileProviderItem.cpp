#include "namespace/FileProviderItem.h"

#include <memory>
#include <utility>

#include "namespace/PinStore.h"
#include "platform/files/Paths.h"

namespace kestrune {

using platform::NSFileProviderContentPolicy;
using platform::NSFileProviderItemCapabilities;
using platform::NSFileProviderItemIdentifier;
using platform::NSFileProviderItemVersion;
using platform::UTType;

namespace {

constexpr const char* kRootFilename = "Kestrune";
constexpr const char* kDirectoryType = "directory";

bool isRoot(const std::string& path) { return path.empty() || path == "/"; }

}  // namespace

FileProviderItem::FileProviderItem(std::string path, bool isDir, std::int64_t size,
                                   platform::Date modified)
    : path_(std::move(path)), isDir_(isDir), size_(size), modified_(modified) {}

platform::NSFileProviderItemPtr FileProviderItem::from(const KestruneAPI::Entry& entry,
                                                       const std::string& parentPath) {
  return std::make_shared<FileProviderItem>(childPath(parentPath, entry.name),
                                            entry.type == kDirectoryType, entry.size,
                                            entry.modifiedAt);
}

std::string FileProviderItem::path(const NSFileProviderItemIdentifier& identifier) {
  return identifier == platform::NSFileProviderRootContainerItemIdentifier ? "/" : identifier;
}

NSFileProviderItemIdentifier FileProviderItem::identifier(const std::string& path) {
  return isRoot(path) ? platform::NSFileProviderRootContainerItemIdentifier : path;
}

std::string FileProviderItem::childPath(const std::string& parentPath, const std::string& name) {
  return (parentPath == "/" ? "" : parentPath) + "/" + name;
}

NSFileProviderItemIdentifier FileProviderItem::itemIdentifier() const { return identifier(path_); }

NSFileProviderItemIdentifier FileProviderItem::parentItemIdentifier() const {
  return identifier(isRoot(path_) ? path_ : platform::deletingLastPathComponent(path_));
}

std::string FileProviderItem::filename() const {
  return path_.empty() ? kRootFilename : platform::lastPathComponent(path_);
}

std::optional<UTType> FileProviderItem::contentType() const {
  if (isDir_) return UTType::folder();
  const std::string extension = platform::pathExtension(filename());
  if (extension.empty()) return UTType::data();
  return UTType::typeForFilenameExtension(extension).value_or(UTType::data());
}

std::optional<NSFileProviderItemCapabilities> FileProviderItem::capabilities() const {
  return NSFileProviderItemCapabilities::allowsReading |
         NSFileProviderItemCapabilities::allowsWriting |
         NSFileProviderItemCapabilities::allowsReparenting |
         NSFileProviderItemCapabilities::allowsRenaming |
         NSFileProviderItemCapabilities::allowsDeleting;
}

std::optional<std::int64_t> FileProviderItem::documentSize() const {
  if (isDir_) return std::nullopt;
  return size_;
}

std::optional<platform::Date> FileProviderItem::contentModificationDate() const {
  return modified_;
}

// The service knows one time only.
std::optional<platform::Date> FileProviderItem::creationDate() const { return modified_; }

NSFileProviderContentPolicy FileProviderItem::contentPolicy() const {
  if (!isDir_ && PinStore::isPinned(path_))
    return NSFileProviderContentPolicy::downloadEagerlyAndKeepDownloaded;
  return NSFileProviderContentPolicy::inherited;
}

std::optional<NSFileProviderItemVersion> FileProviderItem::itemVersion() const {
  const std::string version =
      std::to_string(platform::wholeSeconds(modified_)) + "-" + std::to_string(size_);
  return NSFileProviderItemVersion{version, version};
}

ItemLocation::ItemLocation(const std::string& path)
    : parent(platform::deletingLastPathComponent(path)), name(platform::lastPathComponent(path)) {
  if (parent.empty()) parent = "/";
}

const KestruneAPI::Entry* findEntry(const std::vector<KestruneAPI::Entry>& entries,
                                    const std::string& name) {
  for (const auto& entry : entries) {
    if (entry.name == name) return &entry;
  }
  return nullptr;
}

}  // namespace kestrune
