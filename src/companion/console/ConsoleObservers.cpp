#include "companion/console/ConsoleObservers.h"

#include "companion/console/ConsoleJson.h"

namespace kestrune {

using namespace platform;

void ConsoleEnumerationObserver::didEnumerateItems(
    std::vector<NSFileProviderItemPtr> updatedItems) {
  reply_->tell("didEnumerateItems", {{"items", itemsJson(updatedItems)}});
}

void ConsoleEnumerationObserver::finishEnumeratingUpToPage(
    std::optional<NSFileProviderPage> nextPage) {
  reply_->answer("finishEnumeratingUpToPage",
                 {{"nextPage", nextPage ? OrderedJson(*nextPage) : OrderedJson(nullptr)}});
}

void ConsoleEnumerationObserver::finishEnumeratingWithError(NSErrorPtr error) {
  reply_->answer("finishEnumeratingWithError", {{"error", errorJson(error)}});
}

void ConsoleChangeObserver::didUpdateItems(std::vector<NSFileProviderItemPtr> updatedItems) {
  reply_->tell("didUpdateItems", {{"items", itemsJson(updatedItems)}});
}

void ConsoleChangeObserver::didDeleteItemsWithIdentifiers(
    std::vector<NSFileProviderItemIdentifier> deletedItemIdentifiers) {
  reply_->tell("didDeleteItems", {{"identifiers", deletedItemIdentifiers}});
}

void ConsoleChangeObserver::finishEnumeratingChangesUpToSyncAnchor(NSFileProviderSyncAnchor anchor,
                                                                   bool moreComing) {
  OrderedJson fields = OrderedJson::object();
  addAnchor(fields, anchor);
  fields["moreComing"] = moreComing;
  reply_->answer("finishEnumeratingChanges", fields);
}

void ConsoleChangeObserver::finishEnumeratingWithError(NSErrorPtr error) {
  reply_->answer("finishEnumeratingWithError", {{"error", errorJson(error)}});
}

}  // namespace kestrune
