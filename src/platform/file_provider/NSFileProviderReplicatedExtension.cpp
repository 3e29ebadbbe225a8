#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace kestrune::platform {

namespace {

NSErrorPtr readOnly() {
  return std::make_shared<NSCocoaError>(NSCocoaError::featureUnsupported,
                                        "This provider's files are read-only.");
}

}  // namespace

NSProgressPtr NSFileProviderReplicatedExtension::createItem(
    NSFileProviderItemPtr, NSFileProviderItemFields, std::optional<std::filesystem::path>,
    NSFileProviderCreateItemOptions, NSFileProviderRequest, ChangeHandler completionHandler) {
  completionHandler(nullptr, NSFileProviderItemFields::none, false, readOnly());
  return std::make_shared<NSProgress>(1);
}

NSProgressPtr NSFileProviderReplicatedExtension::modifyItem(
    NSFileProviderItemPtr, NSFileProviderItemVersion, NSFileProviderItemFields,
    std::optional<std::filesystem::path>, NSFileProviderModifyItemOptions, NSFileProviderRequest,
    ChangeHandler completionHandler) {
  completionHandler(nullptr, NSFileProviderItemFields::none, false, readOnly());
  return std::make_shared<NSProgress>(1);
}

NSProgressPtr NSFileProviderReplicatedExtension::deleteItem(NSFileProviderItemIdentifier,
                                                            NSFileProviderItemVersion,
                                                            NSFileProviderDeleteItemOptions,
                                                            NSFileProviderRequest,
                                                            DoneHandler completionHandler) {
  completionHandler(readOnly());
  return std::make_shared<NSProgress>(1);
}

}  // namespace kestrune::platform
