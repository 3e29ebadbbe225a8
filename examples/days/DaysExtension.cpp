#include "days/DaysExtension.h"

#include <charconv>
#include <fstream>
#include <utility>

#include "platform/file_provider/NSFileProviderError.h"
#include "platform/files/Directories.h"
#include "platform/values/UUID.h"

namespace days {

namespace {

using namespace kestrune::platform;  // NOLINT(google-build-using-namespace): the protocols' names

constexpr int kDays = 31;

bool isRoot(const std::string& identifier) {
  return identifier == NSFileProviderRootContainerItemIdentifier;
}

std::string contentsOf(int day) { return "Day " + std::to_string(day) + "\n"; }

// An identifier is the number of the day; whatever else comes names nothing.
std::optional<int> dayOf(const std::string& identifier) {
  int day = 0;
  const char* const end = identifier.data() + identifier.size();
  const auto parsed = std::from_chars(identifier.data(), end, day);
  if (parsed.ec != std::errc() || parsed.ptr != end || day < 1 || day > kDays) return std::nullopt;
  return day;
}

class Root final : public NSFileProviderItem {
 public:
  std::string itemIdentifier() const override { return NSFileProviderRootContainerItemIdentifier; }
  std::string parentItemIdentifier() const override {
    return NSFileProviderRootContainerItemIdentifier;
  }
  std::string filename() const override { return "Days"; }
  std::optional<UTType> contentType() const override { return UTType::folder(); }
};

class Day final : public NSFileProviderItem {
 public:
  explicit Day(int day) : day_(day) {}
  std::string itemIdentifier() const override { return std::to_string(day_); }
  std::string parentItemIdentifier() const override {
    return NSFileProviderRootContainerItemIdentifier;
  }
  std::string filename() const override { return "day " + std::to_string(day_) + ".txt"; }
  std::optional<std::int64_t> documentSize() const override {
    return static_cast<std::int64_t>(contentsOf(day_).size());
  }
  // Equal versions promise equal contents. With none, the host goes by size and time.
  std::optional<NSFileProviderItemVersion> itemVersion() const override {
    return NSFileProviderItemVersion{"1", "1"};
  }

 private:
  const int day_;
};

NSErrorPtr noSuchItem() { return NSFileProviderError(NSFileProviderError::noSuchItem).share(); }

class DaysEnumerator final : public NSFileProviderEnumerator {
 public:
  void invalidate() override {}
  void enumerateItems(std::shared_ptr<NSFileProviderEnumerationObserver> observer,
                      NSFileProviderPage) override {
    std::vector<NSFileProviderItemPtr> items;
    for (int day = 1; day <= kDays; ++day) items.push_back(std::make_shared<const Day>(day));
    observer->didEnumerateItems(std::move(items));
    observer->finishEnumeratingUpToPage(std::nullopt);
  }
  // Nothing ever changes: the anchor of then is the anchor of now.
  void enumerateChanges(std::shared_ptr<NSFileProviderChangeObserver> observer,
                        NSFileProviderSyncAnchor anchor) override {
    observer->finishEnumeratingChangesUpToSyncAnchor(std::move(anchor), false);
  }
  void currentSyncAnchor(
      std::function<void(std::optional<NSFileProviderSyncAnchor>)> handler) override {
    handler("for ever");
  }
};

}  // namespace

NSProgressPtr DaysExtension::item(NSFileProviderItemIdentifier identifier, NSFileProviderRequest,
                                  ItemHandler completionHandler) {
  if (isRoot(identifier)) {
    completionHandler(std::make_shared<const Root>(), nullptr);
  } else if (const auto day = dayOf(identifier)) {
    completionHandler(std::make_shared<const Day>(*day), nullptr);
  } else {
    completionHandler(nullptr, noSuchItem());
  }
  return std::make_shared<NSProgress>(1);
}

NSProgressPtr DaysExtension::fetchContents(NSFileProviderItemIdentifier itemIdentifier,
                                           std::optional<NSFileProviderItemVersion>,
                                           NSFileProviderRequest,
                                           ContentsHandler completionHandler) {
  const auto day = dayOf(itemIdentifier);
  if (!day) {
    completionHandler(std::nullopt, nullptr, noSuchItem());
    return std::make_shared<NSProgress>(1);
  }
  // The host takes the file from there, by a rename.
  const auto file = temporaryDirectory() / newUUIDString();
  std::ofstream written(file, std::ios::binary);
  written << contentsOf(*day);
  written.close();
  if (written) {
    completionHandler(file, std::make_shared<const Day>(*day), nullptr);
  } else {
    completionHandler(std::nullopt, nullptr,
                      NSPOSIXError(EIO, "write '" + file.string() + "'").share());
  }
  return std::make_shared<NSProgress>(1);
}

std::shared_ptr<NSFileProviderEnumerator> DaysExtension::enumerator(
    NSFileProviderItemIdentifier containerItemIdentifier, NSFileProviderRequest) {
  if (!isRoot(containerItemIdentifier)) noSuchItem()->raise();
  return std::make_shared<DaysEnumerator>();
}

}  // namespace days
