#include "companion/console/ConsoleOperations.h"

#include <array>
#include <cstdint>
#include <limits>
#include <utility>

#include "companion/console/Base64.h"
#include "companion/console/ConsoleJson.h"
#include "companion/console/ConsoleObservers.h"
#include "companion/console/ConsoleTemplateItem.h"
#include "platform/values/UUID.h"

namespace kestrune {

using namespace platform;
using Kind = ConsoleCall::Kind;
using ReplyPtr = ConsoleCall::ReplyPtr;

namespace {

using LocalFile = std::optional<std::filesystem::path>;

OrderedJson pathJson(const LocalFile& path) {
  return path ? OrderedJson(path->string()) : OrderedJson(nullptr);
}

LocalFile localFile(const ConsoleRequest& request, std::string_view name) {
  const auto text = request.optionalText(name);
  if (!text) return std::nullopt;
  if (text->empty() || text->find('\0') != std::string::npos) {
    throw InvalidCall("\"" + std::string(name) + "\" must be a local path");
  }
  return LocalFile(*text);
}

NSFileProviderItemFields itemFields(const ConsoleRequest& request, std::string_view name) {
  const std::int64_t bits = request.integer(name);
  if (bits < 0 || bits > std::int64_t{std::numeric_limits<std::uint32_t>::max()}) {
    throw InvalidCall("\"" + std::string(name) + "\" must be a set of 32 bits");
  }
  return static_cast<NSFileProviderItemFields>(bits);
}

NSFileProviderSyncAnchor anchorOf(const ConsoleRequest& request) {
  if (const auto text = request.optionalText("anchor")) {
    if (request.optionalText("anchorBase64"))
      throw InvalidCall("\"anchor\" and \"anchorBase64\" exclude each other");
    return *text;
  }
  const auto encoded = request.optionalText("anchorBase64");
  if (!encoded) throw InvalidCall("\"anchor\" is missing (or \"anchorBase64\")");
  auto bytes = base64Decoded(*encoded);
  if (!bytes) throw InvalidCall("\"anchorBase64\" must be base 64, padded and without white space");
  return std::move(*bytes);
}

NSFileProviderReplicatedExtension::ChangeHandler changeHandler(const ReplyPtr& reply) {
  return [reply](const NSFileProviderItemPtr& item, NSFileProviderItemFields pending,
                 bool shouldFetchContent, const NSErrorPtr& error) {
    const OrderedJson progress = reply->progress();
    reply->answer("completion", {{"item", itemJson(item)},
                                 {"pendingFields", static_cast<std::uint32_t>(pending)},
                                 {"shouldFetchContent", shouldFetchContent},
                                 {"error", errorJson(error)},
                                 {"progress", progress}});
  };
}

NSFileProviderReplicatedExtension::DoneHandler doneHandler(const ReplyPtr& reply) {
  return [reply](const NSErrorPtr& error) {
    const OrderedJson progress = reply->progress();
    reply->answer("completion", {{"error", errorJson(error)}, {"progress", progress}});
  };
}

}  // namespace

struct ConsoleOperations::Operation {
  std::string_view name;
  void (ConsoleOperations::*run)(const ConsoleRequest&);
};

const ConsoleOperations::Operation* ConsoleOperations::find(std::string_view name) {
  using Self = ConsoleOperations;
  static constexpr std::array<Operation, 15> kOperations = {
      {{"item", &Self::item},
       {"enumerateItems", &Self::enumerateItems},
       {"enumerateChanges", &Self::enumerateChanges},
       {"currentSyncAnchor", &Self::currentSyncAnchor},
       {"fetchContents", &Self::fetchContents},
       {"fetchPartialContents", &Self::fetchPartialContents},
       {"createItem", &Self::createItem},
       {"modifyItem", &Self::modifyItem},
       {"deleteItem", &Self::deleteItem},
       {"performAction", &Self::performAction},
       {"invalidate", &Self::invalidate},
       {"manager", &Self::orderManager},
       {"wait", &Self::wait},
       {"cancel", &Self::cancel},
       {"advanceClock", &Self::advanceClock}}};
  for (const auto& operation : kOperations) {
    if (operation.name == name) return &operation;
  }
  return nullptr;
}

bool ConsoleOperations::isOffered(const Operation& operation) const {
  if (operation.name == "fetchPartialContents") return partialContents_ != nullptr;
  if (operation.name == "performAction") return customActions_ != nullptr;
  return true;
}

ConsoleOperations::ConsoleOperations(CallSurroundings& surroundings, Parts parts)
    : surroundings_(surroundings),
      extension_(std::move(parts.extension)),
      manager_(std::move(parts.manager)),
      clock_(std::move(parts.clock)),
      partialContents_(dynamic_cast<NSFileProviderPartialContentFetching*>(extension_.get())),
      customActions_(dynamic_cast<NSFileProviderCustomAction*>(extension_.get())) {}

void ConsoleOperations::run(const ConsoleRequest& request) {
  request.id();  // a call without an id is none
  const std::string name = request.op();
  const Operation* operation = find(name);
  if (!operation) throw InvalidCall("\"" + abbreviated(name) + "\" is no op");
  if (!isOffered(*operation)) throw InvalidCall("the extension does not offer \"" + name + "\"");
  (this->*operation->run)(request);
}

void ConsoleOperations::item(const ConsoleRequest& request) {
  const std::string identifier = request.text("identifier");
  perform(request, Kind::operation, [&](const ReplyPtr& reply) {
    return extension_->item(
        identifier, {}, [reply](const NSFileProviderItemPtr& item, const NSErrorPtr& error) {
          const OrderedJson progress = reply->progress();
          reply->answer(
              "completion",
              {{"item", itemJson(item)}, {"error", errorJson(error)}, {"progress", progress}});
        });
  });
}

void ConsoleOperations::enumerateItems(const ConsoleRequest& request) {
  const std::string container = request.text("container");
  perform(request, Kind::enumeration, [&](const ReplyPtr& reply) {
    const auto observer = std::make_shared<ConsoleEnumerationObserver>(reply);
    try {
      const auto enumerator = extension_->enumerator(container, {});
      reply->keep(enumerator);
      enumerator->enumerateItems(observer, NSFileProviderInitialPageSortedByName);
    } catch (const NSError& error) {  // there is no enumerator of this container
      observer->finishEnumeratingWithError(error.share());
    }
    return nullptr;
  });
}

void ConsoleOperations::enumerateChanges(const ConsoleRequest& request) {
  const std::string container = request.text("container");
  const NSFileProviderSyncAnchor anchor = anchorOf(request);
  perform(request, Kind::enumeration, [&](const ReplyPtr& reply) {
    const auto observer = std::make_shared<ConsoleChangeObserver>(reply);
    try {
      const auto enumerator = extension_->enumerator(container, {});
      reply->keep(enumerator);
      enumerator->enumerateChanges(observer, anchor);
    } catch (const NSError& error) {  // there is no enumerator of this container
      observer->finishEnumeratingWithError(error.share());
    }
    return nullptr;
  });
}

void ConsoleOperations::currentSyncAnchor(const ConsoleRequest& request) {
  const std::string container = request.text("container");
  perform(request, Kind::question, [&](const ReplyPtr& reply) {
    try {
      const auto enumerator = extension_->enumerator(container, {});
      reply->keep(enumerator);
      enumerator->currentSyncAnchor([reply](const std::optional<NSFileProviderSyncAnchor>& anchor) {
        OrderedJson fields = OrderedJson::object();
        addAnchor(fields, anchor);
        reply->answer("completion", fields);
      });
    } catch (const NSError& error) {  // there is no enumerator of this container
      reply->answer("completion", {{"anchor", nullptr}, {"error", errorJson(error.share())}});
    }
    return nullptr;
  });
}

void ConsoleOperations::fetchContents(const ConsoleRequest& request) {
  const std::string identifier = request.text("identifier");
  perform(request, Kind::operation, [&](const ReplyPtr& reply) {
    auto handler = [reply](const LocalFile& url, const NSFileProviderItemPtr& item,
                           const NSErrorPtr& error) {
      const OrderedJson progress = reply->progress();
      reply->answer("completion", {{"url", pathJson(url)},
                                   {"item", itemJson(item)},
                                   {"error", errorJson(error)},
                                   {"progress", progress}});
    };
    return extension_->fetchContents(identifier, std::nullopt, {}, handler);
  });
}

void ConsoleOperations::fetchPartialContents(const ConsoleRequest& request) {
  const std::string identifier = request.text("identifier");
  const NSRange range{request.integer("location"), request.integer("length")};
  const std::int64_t alignment = request.integer("alignment");
  perform(request, Kind::operation, [&](const ReplyPtr& reply) {
    auto handler = [reply](const LocalFile& url, const NSFileProviderItemPtr& item, NSRange fetched,
                           NSFileProviderMaterializationFlags flags, const NSErrorPtr& error) {
      const OrderedJson progress = reply->progress();
      reply->answer("completion", {{"url", pathJson(url)},
                                   {"item", itemJson(item)},
                                   {"location", fetched.location},
                                   {"length", fetched.length},
                                   {"flags", static_cast<std::uint32_t>(flags)},
                                   {"error", errorJson(error)},
                                   {"progress", progress}});
    };
    return partialContents_->fetchPartialContents(
        identifier, {}, {}, range, alignment, NSFileProviderFetchContentsOptions::none, handler);
  });
}

void ConsoleOperations::createItem(const ConsoleRequest& request) {
  const ConsoleTemplateItem::Properties properties{
      .identifier = newUUIDString(),  // the remote side has not named it yet
      .parentIdentifier = request.text("parent"),
      .filename = request.text("filename"),
      .contentType = request.optionalText("contentType")};
  const LocalFile contents = localFile(request, "contents");
  auto fields = NSFileProviderItemFields::filename | NSFileProviderItemFields::parentItemIdentifier;
  if (contents) fields = fields | NSFileProviderItemFields::contents;
  perform(request, Kind::operation, [&](const ReplyPtr& reply) {
    return extension_->createItem(std::make_shared<ConsoleTemplateItem>(properties), fields,
                                  contents, NSFileProviderCreateItemOptions::none, {},
                                  changeHandler(reply));
  });
}

void ConsoleOperations::modifyItem(const ConsoleRequest& request) {
  const ConsoleTemplateItem::Properties properties{
      .identifier = request.text("identifier"),
      .parentIdentifier = request.text("parent"),
      .filename = request.text("filename"),
      .contentType = request.optionalText("contentType"),
      .documentSize = request.optionalInteger("documentSize")};
  const auto changedFields = itemFields(request, "changedFields");
  const LocalFile contents = localFile(request, "contents");
  perform(request, Kind::operation, [&](const ReplyPtr& reply) {
    return extension_->modifyItem(std::make_shared<ConsoleTemplateItem>(properties), {},
                                  changedFields, contents, NSFileProviderModifyItemOptions::none,
                                  {}, changeHandler(reply));
  });
}

void ConsoleOperations::deleteItem(const ConsoleRequest& request) {
  const std::string identifier = request.text("identifier");
  perform(request, Kind::operation, [&](const ReplyPtr& reply) {
    return extension_->deleteItem(identifier, {}, NSFileProviderDeleteItemOptions::none, {},
                                  doneHandler(reply));
  });
}

void ConsoleOperations::performAction(const ConsoleRequest& request) {
  const std::string action = request.text("action");
  const std::vector<std::string> items = request.texts("items");
  perform(request, Kind::operation, [&](const ReplyPtr& reply) {
    return customActions_->performAction(action, items, doneHandler(reply));
  });
}

void ConsoleOperations::invalidate(const ConsoleRequest& request) {
  extension_->invalidate();
  complete(request);
}

void ConsoleOperations::orderManager(const ConsoleRequest& request) {
  const ConsoleManager::Orders orders{.isPresent = request.optionalBoolean("present"),
                                      .failingEvictions = request.optionalTexts("failEvict"),
                                      .failingDownloads = request.optionalTexts("failDownload")};
  manager_->follow(orders);
  complete(request);
}

void ConsoleOperations::wait(const ConsoleRequest& request) {
  surroundings_.openCalls.waitUntilEnded(request.has("for") ? std::optional(request.required("for"))
                                                            : std::nullopt);
  complete(request);
}

void ConsoleOperations::cancel(const ConsoleRequest& request) {
  for (const auto& call : surroundings_.openCalls.named(request.required("for"))) call->cancel();
  complete(request);
}

void ConsoleOperations::advanceClock(const ConsoleRequest& request) {
  if (!clock_->advance(request.number("seconds"))) {
    throw InvalidCall("\"seconds\" would take the clock more than 300 years away");
  }
  complete(request);
}

void ConsoleOperations::perform(const ConsoleRequest& request, Kind kind,
                                const ConsoleCall::Method& method) {
  const bool watch = request.optionalBoolean("watch").value_or(false);
  ConsoleCall::perform(surroundings_, request.id(), kind, watch, method);
}

void ConsoleOperations::complete(const ConsoleRequest& request) {
  surroundings_.writer->write(request.id(), "completion", OrderedJson::object());
}

}  // namespace kestrune
