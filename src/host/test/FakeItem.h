// An item of the remote store in memory, as its extension describes it.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/test/FakeRemote.h"
#include "platform/file_provider/NSFileProviderItem.h"

namespace kestrune::host::test {

class FakeItem final : public platform::NSFileProviderItem {
 public:
  FakeItem(RemoteItem item, std::string parent)
      : item_(std::move(item)), parent_(std::move(parent)) {}
  std::string itemIdentifier() const override { return item_.identifier; }
  std::string parentItemIdentifier() const override { return parent_; }
  std::string filename() const override { return item_.name; }
  std::optional<platform::UTType> contentType() const override {
    return item_.isFolder ? platform::UTType::folder() : platform::UTType::data();
  }
  std::optional<std::int64_t> documentSize() const override {
    if (item_.isFolder) return std::nullopt;
    return item_.listedSize.value_or(static_cast<std::int64_t>(item_.contents.size()));
  }
  std::optional<platform::Date> contentModificationDate() const override { return item_.modified; }
  platform::NSFileProviderContentPolicy contentPolicy() const override { return item_.policy; }
  std::optional<platform::NSFileProviderItemVersion> itemVersion() const override {
    return platform::NSFileProviderItemVersion{item_.version, item_.version};
  }

 private:
  const RemoteItem item_;
  const std::string parent_;
};

inline std::vector<platform::NSFileProviderItemPtr> asItems(const std::vector<RemoteItem>& items,
                                                            const std::string& parent) {
  std::vector<platform::NSFileProviderItemPtr> result;
  for (const auto& item : items) result.push_back(std::make_shared<FakeItem>(item, parent));
  return result;
}

inline const RemoteItem* byIdentifier(const std::vector<RemoteItem>& items,
                                      const std::string& identifier) {
  const auto found = std::find_if(items.begin(), items.end(), [&](const RemoteItem& item) {
    return item.identifier == identifier;
  });
  return found == items.end() ? nullptr : &*found;
}

}  // namespace kestrune::host::test
