#include "host/launch/LaunchedExtension.h"

#include <utility>

#include "host/launch/LaunchedEnumerator.h"
#include "host/launch/RepeatedCall.h"
#include "platform/file_provider/ContentStreaming.h"

namespace kestrune::host {

namespace {

using boundary::Completed;
using platform::NSErrorPtr;
using platform::NSFileProviderItemFields;
using platform::NSFileProviderItemIdentifier;
using platform::NSFileProviderItemPtr;
using platform::NSFileProviderItemVersion;
using platform::NSFileProviderRequest;
using platform::NSProgressPtr;
using platform::NSRange;
using Url = std::optional<std::filesystem::path>;
using Kind = RepeatedCall::Kind;
using Extension = RepeatedCall::Extension;
using Done = RepeatedCall::Done;

Extension::ChangeHandler changeHandler(Done done) {
  return [done = std::move(done)](NSFileProviderItemPtr item, NSFileProviderItemFields pending,
                                  bool fetch, NSErrorPtr error) {
    done({.error = std::move(error),
          .item = std::move(item),
          .pendingFields = pending,
          .shouldFetchContent = fetch});
  };
}

Done doneOf(Extension::ChangeHandler handler) {
  return [handler = std::move(handler)](const Completed& completed) {
    handler(completed.item, completed.pendingFields, completed.shouldFetchContent, completed.error);
  };
}

Done doneOf(Extension::DoneHandler handler) {
  return [handler = std::move(handler)](const Completed& completed) { handler(completed.error); };
}

class LaunchedExtension : public Extension {
 public:
  explicit LaunchedExtension(std::shared_ptr<ExtensionSource> source)
      : source_(std::move(source)) {}

  void invalidate() override { source_->end(); }

  NSProgressPtr item(NSFileProviderItemIdentifier identifier, NSFileProviderRequest request,
                     ItemHandler completionHandler) override {
    return question(
        [=](Extension& extension, Done done) {
          return extension.item(
              identifier, request,
              [done = std::move(done)](NSFileProviderItemPtr item, NSErrorPtr error) {
                done({.error = std::move(error), .item = std::move(item)});
              });
        },
        [handler = std::move(completionHandler)](const Completed& completed) {
          handler(completed.item, completed.error);
        });
  }

  NSProgressPtr fetchContents(NSFileProviderItemIdentifier itemIdentifier,
                              std::optional<NSFileProviderItemVersion> requestedVersion,
                              NSFileProviderRequest request,
                              ContentsHandler completionHandler) override {
    return question(
        [=](Extension& extension, Done done) {
          return extension.fetchContents(
              itemIdentifier, requestedVersion, request,
              [done = std::move(done)](Url url, NSFileProviderItemPtr item, NSErrorPtr error) {
                done({.error = std::move(error), .item = std::move(item), .url = std::move(url)});
              });
        },
        [handler = std::move(completionHandler)](const Completed& completed) {
          handler(completed.url, completed.item, completed.error);
        });
  }

  NSProgressPtr createItem(NSFileProviderItemPtr itemTemplate, NSFileProviderItemFields fields,
                           Url url, platform::NSFileProviderCreateItemOptions options,
                           NSFileProviderRequest request,
                           ChangeHandler completionHandler) override {
    return change(
        [=](Extension& extension, Done done) {
          return extension.createItem(itemTemplate, fields, url, options, request,
                                      changeHandler(std::move(done)));
        },
        doneOf(std::move(completionHandler)));
  }

  NSProgressPtr modifyItem(NSFileProviderItemPtr item, NSFileProviderItemVersion baseVersion,
                           NSFileProviderItemFields changedFields, Url newContents,
                           platform::NSFileProviderModifyItemOptions options,
                           NSFileProviderRequest request,
                           ChangeHandler completionHandler) override {
    return change(
        [=](Extension& extension, Done done) {
          return extension.modifyItem(item, baseVersion, changedFields, newContents, options,
                                      request, changeHandler(std::move(done)));
        },
        doneOf(std::move(completionHandler)));
  }

  NSProgressPtr deleteItem(NSFileProviderItemIdentifier identifier,
                           NSFileProviderItemVersion baseVersion,
                           platform::NSFileProviderDeleteItemOptions options,
                           NSFileProviderRequest request, DoneHandler completionHandler) override {
    return change(
        [=](Extension& extension, Done done) {
          return extension.deleteItem(
              identifier, baseVersion, options, request,
              [done = std::move(done)](NSErrorPtr error) { done({.error = std::move(error)}); });
        },
        doneOf(std::move(completionHandler)));
  }

  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator(
      NSFileProviderItemIdentifier containerItemIdentifier,
      NSFileProviderRequest request) override {
    return std::make_shared<LaunchedEnumerator>(source_, std::move(containerItemIdentifier),
                                                std::move(request));
  }

 protected:
  NSProgressPtr question(RepeatedCall::Start start, Done handler) const {
    return RepeatedCall::make(source_, Kind::question, std::move(start), std::move(handler));
  }
  NSProgressPtr change(RepeatedCall::Start start, Done handler) const {
    return RepeatedCall::make(source_, Kind::change, std::move(start), std::move(handler));
  }

 private:
  const std::shared_ptr<ExtensionSource> source_;
};

template <class Base>
class WithPartialContents : public Base, public platform::NSFileProviderPartialContentFetching {
 public:
  using Base::Base;
  NSProgressPtr fetchPartialContents(NSFileProviderItemIdentifier itemIdentifier,
                                     NSFileProviderItemVersion requestedVersion,
                                     NSFileProviderRequest request, NSRange minimalRange,
                                     std::int64_t alignment,
                                     platform::NSFileProviderFetchContentsOptions options,
                                     PartialContentsHandler completionHandler) override {
    return Base::question(
        [=](Extension& extension, Done done) {
          auto handler = [done = std::move(done)](
                             Url url, NSFileProviderItemPtr item, NSRange range,
                             platform::NSFileProviderMaterializationFlags flags, NSErrorPtr error) {
            done({.error = std::move(error),
                  .item = std::move(item),
                  .url = std::move(url),
                  .range = range,
                  .flags = flags});
          };
          return dynamic_cast<NSFileProviderPartialContentFetching&>(extension)
              .fetchPartialContents(itemIdentifier, requestedVersion, request, minimalRange,
                                    alignment, options, std::move(handler));
        },
        [handler = std::move(completionHandler)](const Completed& completed) {
          handler(completed.url, completed.item, completed.range, completed.flags, completed.error);
        });
  }
};

// How far a stream has come, over all the extensions that carried it.
struct StreamPlace {
  NSRange left;  // one call at a time; the next extension is asked when the last one is gone
  bool isWanted = true;
};

template <class Base>
class WithStreams : public Base, public platform::ContentStreaming {
 public:
  using Base::Base;
  NSProgressPtr streamContents(NSFileProviderItemIdentifier itemIdentifier,
                               NSFileProviderItemVersion requestedVersion,
                               NSFileProviderRequest request, NSRange range, BytesHandler bytes,
                               EndHandler completionHandler) override {
    const auto place = std::make_shared<StreamPlace>(StreamPlace{range});
    const auto taking = [place, bytes = std::move(bytes)](std::int64_t offset,
                                                          std::string_view piece) {
      if (offset != place->left.location) return false;  // not what follows
      place->isWanted = bytes(offset, piece);
      const auto length = static_cast<std::int64_t>(piece.size());
      place->left = {offset + length, place->left.length - length};
      return place->isWanted;
    };
    return Base::question(
        [=](Extension& extension, Done done) -> NSProgressPtr {
          if (place->left.length <= 0 || !place->isWanted) {
            done({});  // the last extension died with nothing left to do
            return nullptr;
          }
          return dynamic_cast<ContentStreaming&>(extension).streamContents(
              itemIdentifier, requestedVersion, request, place->left, taking,
              [done = std::move(done)](NSFileProviderItemPtr item, NSErrorPtr error) {
                done({.error = std::move(error), .item = std::move(item)});
              });
        },
        [handler = std::move(completionHandler)](const Completed& completed) {
          handler(completed.item, completed.error);
        });
  }
};

template <class Base>
class WithActions : public Base, public platform::NSFileProviderCustomAction {
 public:
  using Base::Base;
  NSProgressPtr performAction(std::string actionIdentifier,
                              std::vector<NSFileProviderItemIdentifier> itemIdentifiers,
                              Extension::DoneHandler completionHandler) override {
    return Base::change(
        [=](Extension& extension, Done done) {
          return dynamic_cast<NSFileProviderCustomAction&>(extension).performAction(
              actionIdentifier, itemIdentifiers,
              [done = std::move(done)](NSErrorPtr error) { done({.error = std::move(error)}); });
        },
        doneOf(std::move(completionHandler)));
  }
};

template <class Made>
std::shared_ptr<Extension> withActions(std::shared_ptr<ExtensionSource> source, bool offered) {
  if (offered) return std::make_shared<WithActions<Made>>(std::move(source));
  return std::make_shared<Made>(std::move(source));
}

template <class Made>
std::shared_ptr<Extension> withStreams(std::shared_ptr<ExtensionSource> source,
                                       boundary::Offers offers) {
  if (offers.streams) return withActions<WithStreams<Made>>(std::move(source), offers.actions);
  return withActions<Made>(std::move(source), offers.actions);
}

}  // namespace

std::shared_ptr<Extension> makeLaunchedExtension(std::shared_ptr<ExtensionSource> source,
                                                 boundary::Offers offers) {
  if (offers.partialContents)
    return withStreams<WithPartialContents<LaunchedExtension>>(std::move(source), offers);
  return withStreams<LaunchedExtension>(std::move(source), offers);
}

}  // namespace kestrune::host
