// The item that a call describes: what the system hands to an extension as a new item or as an
// item's new state. It answers to the properties that the call gave, and to no others.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include "platform/file_provider/NSFileProviderItem.h"

namespace kestrune {

class ConsoleTemplateItem : public platform::NSFileProviderItem {
 public:
  struct Properties {
    platform::NSFileProviderItemIdentifier identifier;
    platform::NSFileProviderItemIdentifier parentIdentifier;
    std::string filename;
    std::optional<std::string> contentType =
        std::nullopt;  // "folder", or any other text for a file's type
    std::optional<std::int64_t> documentSize = std::nullopt;
  };

  explicit ConsoleTemplateItem(Properties properties) : properties_(std::move(properties)) {}

  platform::NSFileProviderItemIdentifier itemIdentifier() const override {
    return properties_.identifier;
  }
  platform::NSFileProviderItemIdentifier parentItemIdentifier() const override {
    return properties_.parentIdentifier;
  }
  std::string filename() const override { return properties_.filename; }
  std::optional<platform::UTType> contentType() const override {
    if (!properties_.contentType) return std::nullopt;
    return platform::UTType::named(*properties_.contentType);
  }
  std::optional<std::int64_t> documentSize() const override { return properties_.documentSize; }

 private:
  const Properties properties_;
};

}  // namespace kestrune
