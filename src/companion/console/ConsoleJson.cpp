#include "companion/console/ConsoleJson.h"

#include <cstdint>

#include "api/APIError.h"
#include "companion/console/Base64.h"
#include "platform/values/Date.h"
#include "platform/values/UTF8.h"
#include "transfer/MPError.h"

namespace kestrune {

using namespace platform;

namespace {

template <class Value>
OrderedJson orNull(const std::optional<Value>& value) {
  return value ? OrderedJson(*value) : OrderedJson(nullptr);
}

OrderedJson dateJson(const std::optional<Date>& date) {
  return date ? OrderedJson(formatISO8601Milliseconds(*date)) : OrderedJson(nullptr);
}

}  // namespace

OrderedJson itemJson(const NSFileProviderItemPtr& item) {
  if (!item) return nullptr;
  const auto type = item->contentType();
  const auto capabilities = item->capabilities();
  const auto version = item->itemVersion();
  OrderedJson json = OrderedJson::object();
  json["identifier"] = item->itemIdentifier();
  json["parentIdentifier"] = item->parentItemIdentifier();
  json["filename"] = item->filename();
  json["contentType"] = type ? OrderedJson(type->identifier()) : OrderedJson(nullptr);
  json["capabilities"] =
      capabilities ? OrderedJson(static_cast<std::uint32_t>(*capabilities)) : OrderedJson(nullptr);
  json["documentSize"] = orNull(item->documentSize());
  json["contentModificationDate"] = dateJson(item->contentModificationDate());
  json["creationDate"] = dateJson(item->creationDate());
  json["contentPolicy"] = static_cast<std::int64_t>(item->contentPolicy());
  json["contentVersion"] = version ? OrderedJson(version->contentVersion) : OrderedJson(nullptr);
  json["metadataVersion"] = version ? OrderedJson(version->metadataVersion) : OrderedJson(nullptr);
  return json;
}

OrderedJson itemsJson(const std::vector<NSFileProviderItemPtr>& items) {
  OrderedJson json = OrderedJson::array();
  for (const auto& item : items) json.push_back(itemJson(item));
  return json;
}

OrderedJson errorJson(const NSErrorPtr& error) {
  if (!error) return nullptr;
  OrderedJson json = OrderedJson::object();
  json["domain"] = error->domain();
  json["code"] = error->code();
  json["description"] = error->localizedDescription();
  if (const auto* api = dynamic_cast<const APIError*>(error.get())) {
    json["case"] = api->caseName();
    if (api->which() == APIError::Case::http) json["status"] = api->status();
  } else if (const auto* multipart = dynamic_cast<const MPError*>(error.get())) {
    json["case"] = multipart->caseName();
  }
  return json;
}

OrderedJson progressJson(const std::optional<NSProgress::Snapshot>& progress) {
  if (!progress) return nullptr;
  OrderedJson json = OrderedJson::object();
  json["total"] = progress->totalUnitCount;
  json["completed"] = progress->completedUnitCount;
  return json;
}

void addAnchor(OrderedJson& fields, const std::optional<NSFileProviderSyncAnchor>& anchor) {
  if (anchor && !isValidUTF8(*anchor)) {
    fields["anchor"] = nullptr;
    fields["anchorBase64"] = base64Encoded(*anchor);
  } else {
    fields["anchor"] = orNull(anchor);
  }
}

OrderedJson rangeJson(const std::optional<NSRange>& range) {
  if (!range) return nullptr;
  OrderedJson json = OrderedJson::object();
  json["location"] = range->location;
  json["length"] = range->length;
  return json;
}

}  // namespace kestrune
