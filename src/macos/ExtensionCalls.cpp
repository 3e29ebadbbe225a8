#include "macos/ExtensionCalls.h"

#include <utility>

#include "extension/FileProviderExtension.h"
#include "macos/AnswerOnce.h"
#include "macos/ObserverOnce.h"

namespace kestrune::macos {

using platform::NSErrorPtr;
using platform::NSFileProviderItemFields;
using platform::NSFileProviderItemPtr;
using platform::NSProgressPtr;

namespace {

using PartialHandler = platform::NSFileProviderPartialContentFetching::PartialContentsHandler;

auto once(Replicated::ItemHandler handler) {
  return AnswerOnce<NSFileProviderItemPtr, NSErrorPtr>(
      std::move(handler), [](const auto& failed, NSErrorPtr error) { failed(nullptr, error); });
}

auto once(Replicated::ContentsHandler handler) {
  return AnswerOnce<std::optional<std::filesystem::path>, NSFileProviderItemPtr, NSErrorPtr>(
      std::move(handler),
      [](const auto& failed, NSErrorPtr error) { failed(std::nullopt, nullptr, error); });
}

auto once(PartialHandler handler) {
  using Flags = platform::NSFileProviderMaterializationFlags;
  return AnswerOnce<std::optional<std::filesystem::path>, NSFileProviderItemPtr, platform::NSRange,
                    Flags, NSErrorPtr>(std::move(handler),
                                       [](const auto& failed, NSErrorPtr error) {
                                         failed(std::nullopt, nullptr, {0, 0}, Flags::none, error);
                                       });
}

auto once(Replicated::ChangeHandler handler) {
  return AnswerOnce<NSFileProviderItemPtr, NSFileProviderItemFields, bool, NSErrorPtr>(
      std::move(handler), [](const auto& failed, NSErrorPtr error) {
        failed(nullptr, NSFileProviderItemFields::none, false, error);
      });
}

auto once(Replicated::DoneHandler handler) {
  return AnswerOnce<NSErrorPtr>(std::move(handler),
                                [](const auto& failed, NSErrorPtr error) { failed(error); });
}

/// The progress of `call(answer)`, or one of our own where it gave none; a call that throws has answered
/// with what it threw.
template <class Handler, class Call>
NSProgressPtr answeredOnce(Handler handler, const Call& call) {
  const auto answer = once(std::move(handler));
  try {
    if (NSProgressPtr progress = call(answer)) return progress;
  } catch (...) {
    answer.fail(platform::currentError());
  }
  return std::make_shared<platform::NSProgress>(1);
}

/// Does `work`; `fail` is told what it throws.
template <class Work, class Fail>
void contained(const Work& work, const Fail& fail) {
  try {
    work();
  } catch (...) {
    fail(platform::currentError());
  }
}

}  // namespace

Extension makeExtension(std::string domainIdentifier, std::string displayName) noexcept {
  auto domain = std::make_shared<const platform::NSFileProviderDomain>(std::move(domainIdentifier),
                                                                       std::move(displayName));
  const auto extension = FileProviderExtension::make(std::move(domain));
  return {extension, extension, extension};
}

void invalidate(const Extension& extension) noexcept { extension.replicated->invalidate(); }

NSProgressPtr item(const Extension& extension, platform::NSFileProviderItemIdentifier identifier,
                   platform::NSFileProviderRequest request,
                   Replicated::ItemHandler completionHandler) noexcept {
  return answeredOnce(std::move(completionHandler), [&](const auto& answer) {
    return extension.replicated->item(std::move(identifier), std::move(request), answer);
  });
}

NSProgressPtr fetchContents(const Extension& extension,
                            platform::NSFileProviderItemIdentifier identifier,
                            std::optional<platform::NSFileProviderItemVersion> requestedVersion,
                            platform::NSFileProviderRequest request,
                            Replicated::ContentsHandler completionHandler) noexcept {
  return answeredOnce(std::move(completionHandler), [&](const auto& answer) {
    return extension.replicated->fetchContents(std::move(identifier), std::move(requestedVersion),
                                               std::move(request), answer);
  });
}

NSProgressPtr fetchPartialContents(const Extension& extension, PartialFetchCall call,
                                   PartialHandler completionHandler) noexcept {
  return answeredOnce(std::move(completionHandler), [&](const auto& answer) {
    return extension.partial->fetchPartialContents(
        std::move(call.identifier), std::move(call.requestedVersion), std::move(call.request),
        call.minimalRange, call.alignment, call.options, answer);
  });
}

NSProgressPtr createItem(const Extension& extension, CreationCall call,
                         Replicated::ChangeHandler completionHandler) noexcept {
  return answeredOnce(std::move(completionHandler), [&](const auto& answer) {
    return extension.replicated->createItem(std::move(call.itemTemplate), call.fields,
                                            std::move(call.contents), call.options,
                                            std::move(call.request), answer);
  });
}

NSProgressPtr modifyItem(const Extension& extension, ModificationCall call,
                         Replicated::ChangeHandler completionHandler) noexcept {
  return answeredOnce(std::move(completionHandler), [&](const auto& answer) {
    return extension.replicated->modifyItem(std::move(call.item), std::move(call.baseVersion),
                                            call.changedFields, std::move(call.newContents),
                                            call.options, std::move(call.request), answer);
  });
}

NSProgressPtr deleteItem(const Extension& extension,
                         platform::NSFileProviderItemIdentifier identifier,
                         platform::NSFileProviderItemVersion baseVersion,
                         platform::NSFileProviderDeleteItemOptions options,
                         platform::NSFileProviderRequest request,
                         Replicated::DoneHandler completionHandler) noexcept {
  return answeredOnce(std::move(completionHandler), [&](const auto& answer) {
    return extension.replicated->deleteItem(std::move(identifier), std::move(baseVersion), options,
                                            std::move(request), answer);
  });
}

NSProgressPtr performAction(const Extension& extension, std::string actionIdentifier,
                            std::vector<platform::NSFileProviderItemIdentifier> itemIdentifiers,
                            Replicated::DoneHandler completionHandler) noexcept {
  return answeredOnce(std::move(completionHandler), [&](const auto& answer) {
    return extension.actions->performAction(std::move(actionIdentifier), std::move(itemIdentifiers),
                                            answer);
  });
}

MadeEnumerator makeEnumerator(const Extension& extension,
                              platform::NSFileProviderItemIdentifier container,
                              platform::NSFileProviderRequest request) noexcept {
  MadeEnumerator made;
  contained(
      [&] {
        made.enumerator =
            extension.replicated->enumerator(std::move(container), std::move(request));
      },
      [&](NSErrorPtr error) { made.error = std::move(error); });
  // The platform takes "neither" for a fault of the extension's program.
  if (!made.enumerator && !made.error) made.error = platform::CancellationError().share();
  return made;
}

void invalidate(platform::NSFileProviderEnumerator& enumerator) noexcept {
  enumerator.invalidate();
}

void enumerateItems(platform::NSFileProviderEnumerator& enumerator,
                    std::shared_ptr<platform::NSFileProviderEnumerationObserver> observer,
                    platform::NSFileProviderPage page) noexcept {
  const auto once = std::make_shared<EnumerationObserverOnce>(std::move(observer));
  contained([&] { enumerator.enumerateItems(once, std::move(page)); },
            [&](NSErrorPtr error) { once->finishEnumeratingWithError(std::move(error)); });
}

void enumerateChanges(platform::NSFileProviderEnumerator& enumerator,
                      std::shared_ptr<platform::NSFileProviderChangeObserver> observer,
                      platform::NSFileProviderSyncAnchor anchor) noexcept {
  const auto once = std::make_shared<ChangeObserverOnce>(std::move(observer));
  contained([&] { enumerator.enumerateChanges(once, std::move(anchor)); },
            [&](NSErrorPtr error) { once->finishEnumeratingWithError(std::move(error)); });
}

void currentSyncAnchor(
    platform::NSFileProviderEnumerator& enumerator,
    std::function<void(std::optional<platform::NSFileProviderSyncAnchor>)> answer) noexcept {
  const AnswerOnce<std::optional<platform::NSFileProviderSyncAnchor>> once(
      std::move(answer), [](const auto& failed, const NSErrorPtr&) { failed(std::nullopt); });
  contained([&] { enumerator.currentSyncAnchor(once); },
            [&](NSErrorPtr error) { once.fail(std::move(error)); });
}

}  // namespace kestrune::macos
