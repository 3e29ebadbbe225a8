#include "boundary/Messages.h"

#include <chrono>
#include <utility>

namespace kestrune::boundary {

namespace {

using platform::Date;
using platform::NSFileProviderItemVersion;
using platform::NSFileProviderRequest;
using platform::NSRange;

std::int64_t microseconds(Date date) { return date.time_since_epoch().count(); }
Date dateOf(std::int64_t microseconds) { return Date(std::chrono::microseconds(microseconds)); }

// An item as it was described.
class DescribedItem final : public platform::NSFileProviderItem {
 public:
  explicit DescribedItem(wire::Item::Reader message)
      : identifier_(text(message.getIdentifier())),
        parentIdentifier_(text(message.getParentIdentifier())),
        filename_(text(message.getFilename())),
        contentPolicy_(
            static_cast<platform::NSFileProviderContentPolicy>(message.getContentPolicy())) {
    if (message.hasContentType())
      contentType_ = platform::UTType::named(text(message.getContentType()));
    if (message.getHasCapabilities())
      capabilities_ =
          static_cast<platform::NSFileProviderItemCapabilities>(message.getCapabilities());
    if (message.getHasSize()) documentSize_ = message.getSize();
    if (message.getHasModified()) modified_ = dateOf(message.getModified());
    if (message.getHasCreated()) created_ = dateOf(message.getCreated());
    if (message.hasVersion()) version_ = read(message.getVersion());
  }

  platform::NSFileProviderItemIdentifier itemIdentifier() const override { return identifier_; }
  platform::NSFileProviderItemIdentifier parentItemIdentifier() const override {
    return parentIdentifier_;
  }
  std::string filename() const override { return filename_; }
  std::optional<platform::UTType> contentType() const override { return contentType_; }
  std::optional<platform::NSFileProviderItemCapabilities> capabilities() const override {
    return capabilities_;
  }
  std::optional<std::int64_t> documentSize() const override { return documentSize_; }
  std::optional<Date> contentModificationDate() const override { return modified_; }
  std::optional<Date> creationDate() const override { return created_; }
  platform::NSFileProviderContentPolicy contentPolicy() const override { return contentPolicy_; }
  std::optional<NSFileProviderItemVersion> itemVersion() const override { return version_; }

 private:
  const std::string identifier_;
  const std::string parentIdentifier_;
  const std::string filename_;
  const platform::NSFileProviderContentPolicy contentPolicy_;
  std::optional<platform::UTType> contentType_;
  std::optional<platform::NSFileProviderItemCapabilities> capabilities_;
  std::optional<std::int64_t> documentSize_;
  std::optional<Date> modified_;
  std::optional<Date> created_;
  std::optional<NSFileProviderItemVersion> version_;
};

}  // namespace

void write(wire::Item::Builder message, const platform::NSFileProviderItem& item) {
  writeWithoutPolicy(message, item);
  message.setContentPolicy(static_cast<std::int64_t>(item.contentPolicy()));
}

void writeWithoutPolicy(wire::Item::Builder message, const platform::NSFileProviderItem& item) {
  message.setIdentifier(bytesOf(item.itemIdentifier()));
  message.setParentIdentifier(bytesOf(item.parentItemIdentifier()));
  message.setFilename(bytesOf(item.filename()));
  if (const auto type = item.contentType()) message.setContentType(bytesOf(type->identifier()));
  if (const auto capabilities = item.capabilities()) {
    message.setHasCapabilities(true);
    message.setCapabilities(static_cast<std::uint32_t>(*capabilities));
  }
  if (const auto size = item.documentSize()) {
    message.setHasSize(true);
    message.setSize(*size);
  }
  if (const auto modified = item.contentModificationDate()) {
    message.setHasModified(true);
    message.setModified(microseconds(*modified));
  }
  if (const auto created = item.creationDate()) {
    message.setHasCreated(true);
    message.setCreated(microseconds(*created));
  }
  if (const auto version = item.itemVersion()) write(message.initVersion(), *version);
}

platform::NSFileProviderItemPtr read(wire::Item::Reader message) {
  return std::make_shared<const DescribedItem>(message);
}

void write(wire::Error::Builder message, const platform::NSError& error) {
  message.setDomain(bytesOf(error.domain()));
  message.setCode(error.code());
  message.setDescription(bytesOf(error.localizedDescription()));
  const auto& userInfo = error.userInfo();
  auto entries = message.initUserInfo(static_cast<unsigned>(userInfo.size()));
  unsigned next = 0;
  for (const auto& [key, value] : userInfo) {
    auto entry = entries[next++];
    entry.setKey(bytesOf(key));
    entry.setValue(bytesOf(value));
  }
}

platform::NSErrorPtr read(wire::Error::Reader message) {
  platform::NSError::UserInfo userInfo;
  for (const auto entry : message.getUserInfo())
    userInfo[text(entry.getKey())] = text(entry.getValue());
  return std::make_shared<const platform::NSError>(text(message.getDomain()), message.getCode(),
                                                   text(message.getDescription()),
                                                   std::move(userInfo));
}

void write(wire::Version::Builder message, const NSFileProviderItemVersion& version) {
  message.setContent(bytesOf(version.contentVersion));
  message.setMetadata(bytesOf(version.metadataVersion));
}

NSFileProviderItemVersion read(wire::Version::Reader message) {
  return {text(message.getContent()), text(message.getMetadata())};
}

void write(wire::Range::Builder message, NSRange range) {
  message.setLocation(range.location);
  message.setLength(range.length);
}

NSRange read(wire::Range::Reader message) { return {message.getLocation(), message.getLength()}; }

void write(wire::Request::Builder message, const NSFileProviderRequest& request) {
  message.setIsSystemRequest(request.isSystemRequest);
  message.setIsFileViewerRequest(request.isFileViewerRequest);
  if (request.requestingExecutable)
    message.setRequestingExecutable(bytesOf(*request.requestingExecutable));
}

NSFileProviderRequest read(wire::Request::Reader message) {
  NSFileProviderRequest request{message.getIsSystemRequest(), message.getIsFileViewerRequest(),
                                std::nullopt};
  if (message.hasRequestingExecutable())
    request.requestingExecutable = text(message.getRequestingExecutable());
  return request;
}

std::vector<std::string> read(capnp::List<capnp::Data>::Reader texts) {
  std::vector<std::string> read;
  read.reserve(texts.size());
  for (const auto each : texts) read.push_back(text(each));
  return read;
}

void write(wire::Answer::Builder message, const Completed& completed) {
  if (completed.error) write(message.initError(), *completed.error);
  if (completed.item) write(message.initItem(), *completed.item);
  if (completed.url) message.setUrl(bytesOf(completed.url->native()));
  write(message.initRange(), completed.range);
  message.setFlags(static_cast<std::uint32_t>(completed.flags));
  message.setPendingFields(static_cast<std::uint32_t>(completed.pendingFields));
  message.setShouldFetchContent(completed.shouldFetchContent);
  message.setTotal(completed.progress.total);
  message.setCompleted(completed.progress.completed);
  message.setDropped(completed.isDropped);
}

Completed read(wire::Answer::Reader message) {
  Completed completed;
  if (message.hasError()) completed.error = read(message.getError());
  if (message.hasItem()) completed.item = read(message.getItem());
  if (message.hasUrl()) completed.url = text(message.getUrl());
  completed.range = read(message.getRange());
  completed.flags = static_cast<platform::NSFileProviderMaterializationFlags>(message.getFlags());
  completed.pendingFields =
      static_cast<platform::NSFileProviderItemFields>(message.getPendingFields());
  completed.shouldFetchContent = message.getShouldFetchContent();
  completed.progress = {message.getTotal(), message.getCompleted()};
  completed.isDropped = message.getDropped();
  return completed;
}

}  // namespace kestrune::boundary
