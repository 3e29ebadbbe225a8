// An extension in memory: each protocol method does what the test has set for it. A method that
// nothing was set for fails the test.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/tasks/Task.h"

namespace kestrune {

/// An item whose properties a test sets; optional ones that it does not set are not answered to.
struct FakeItem : platform::NSFileProviderItem {
  FakeItem(std::string identifierText, std::string parentText, std::string filenameText)
      : identifier(std::move(identifierText)),
        parent(std::move(parentText)),
        name(std::move(filenameText)) {}

  std::string identifier, parent, name;
  std::optional<platform::UTType> type;
  std::optional<platform::NSFileProviderItemCapabilities> itemCapabilities;
  std::optional<std::int64_t> size;
  std::optional<platform::Date> modified, created;
  platform::NSFileProviderContentPolicy policy = platform::NSFileProviderContentPolicy::inherited;
  std::optional<platform::NSFileProviderItemVersion> version;

  platform::NSFileProviderItemIdentifier itemIdentifier() const override { return identifier; }
  platform::NSFileProviderItemIdentifier parentItemIdentifier() const override { return parent; }
  std::string filename() const override { return name; }
  std::optional<platform::UTType> contentType() const override { return type; }
  std::optional<platform::NSFileProviderItemCapabilities> capabilities() const override {
    return itemCapabilities;
  }
  std::optional<std::int64_t> documentSize() const override { return size; }
  std::optional<platform::Date> contentModificationDate() const override { return modified; }
  std::optional<platform::Date> creationDate() const override { return created; }
  platform::NSFileProviderContentPolicy contentPolicy() const override { return policy; }
  std::optional<platform::NSFileProviderItemVersion> itemVersion() const override {
    return version;
  }
};

inline platform::Task<void> callInTask(std::function<void()> work) {
  work();
  co_return;
}

/// Runs `work` in a detached task, as an extension does with what takes time.
inline void inTask(std::function<void()> work) {
  platform::spawnDetached("fake", callInTask(std::move(work)));
}

struct FakeEnumerator : platform::NSFileProviderEnumerator {
  std::function<void(std::shared_ptr<platform::NSFileProviderEnumerationObserver>)> onItems;
  std::function<void(std::shared_ptr<platform::NSFileProviderChangeObserver>,
                     platform::NSFileProviderSyncAnchor)>
      onChanges;
  std::function<void(std::function<void(std::optional<platform::NSFileProviderSyncAnchor>)>)>
      onAnchor;
  int invalidations = 0;
  std::string page;

  void invalidate() override { ++invalidations; }
  void enumerateItems(std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer,
                      platform::NSFileProviderPage startingPage) override {
    page = std::move(startingPage);
    onItems(std::move(observer));
  }
  void enumerateChanges(std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
                        platform::NSFileProviderSyncAnchor anchor) override {
    onChanges(std::move(observer), std::move(anchor));
  }
  void currentSyncAnchor(std::function<void(std::optional<platform::NSFileProviderSyncAnchor>)>
                             completionHandler) override {
    onAnchor(std::move(completionHandler));
  }
};

/// The protocol that every extension has to implement, and no other.
struct FakeExtension : platform::NSFileProviderReplicatedExtension {
  using Identifier = platform::NSFileProviderItemIdentifier;
  using Progress = platform::NSProgressPtr;
  using File = std::optional<std::filesystem::path>;

  std::function<Progress(Identifier, ItemHandler)> onItem;
  std::function<Progress(Identifier, ContentsHandler)> onFetchContents;
  std::function<Progress(platform::NSFileProviderItemPtr, platform::NSFileProviderItemFields, File,
                         ChangeHandler)>
      onCreateItem, onModifyItem;
  std::function<Progress(Identifier, DoneHandler)> onDeleteItem;
  std::function<std::shared_ptr<platform::NSFileProviderEnumerator>(Identifier)> onEnumerator;
  int invalidations = 0;

  void invalidate() override { ++invalidations; }
  Progress item(Identifier identifier, platform::NSFileProviderRequest,
                ItemHandler handler) override {
    return onItem(std::move(identifier), std::move(handler));
  }
  Progress fetchContents(Identifier identifier,
                         std::optional<platform::NSFileProviderItemVersion> version,
                         platform::NSFileProviderRequest, ContentsHandler handler) override {
    EXPECT_EQ(version, std::nullopt);
    return onFetchContents(std::move(identifier), std::move(handler));
  }
  Progress createItem(platform::NSFileProviderItemPtr item,
                      platform::NSFileProviderItemFields fields, File url,
                      platform::NSFileProviderCreateItemOptions, platform::NSFileProviderRequest,
                      ChangeHandler handler) override {
    return onCreateItem(std::move(item), fields, std::move(url), std::move(handler));
  }
  Progress modifyItem(platform::NSFileProviderItemPtr item, platform::NSFileProviderItemVersion,
                      platform::NSFileProviderItemFields fields, File newContents,
                      platform::NSFileProviderModifyItemOptions, platform::NSFileProviderRequest,
                      ChangeHandler handler) override {
    return onModifyItem(std::move(item), fields, std::move(newContents), std::move(handler));
  }
  Progress deleteItem(Identifier identifier, platform::NSFileProviderItemVersion,
                      platform::NSFileProviderDeleteItemOptions, platform::NSFileProviderRequest,
                      DoneHandler handler) override {
    return onDeleteItem(std::move(identifier), std::move(handler));
  }
  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator(
      Identifier container, platform::NSFileProviderRequest) override {
    return onEnumerator(std::move(container));
  }
};

/// All protocols.
struct FakeFullExtension : FakeExtension,
                           platform::NSFileProviderPartialContentFetching,
                           platform::NSFileProviderCustomAction {
  std::function<Progress(Identifier, platform::NSRange, std::int64_t alignment,
                         PartialContentsHandler)>
      onFetchPartial;
  std::function<Progress(std::string, std::vector<Identifier>, DoneHandler)> onAction;

  Progress fetchPartialContents(Identifier identifier, platform::NSFileProviderItemVersion,
                                platform::NSFileProviderRequest, platform::NSRange minimalRange,
                                std::int64_t alignment,
                                platform::NSFileProviderFetchContentsOptions,
                                PartialContentsHandler handler) override {
    return onFetchPartial(std::move(identifier), minimalRange, alignment, std::move(handler));
  }
  Progress performAction(std::string action, std::vector<Identifier> items,
                         DoneHandler handler) override {
    return onAction(std::move(action), std::move(items), std::move(handler));
  }
};

}  // namespace kestrune
