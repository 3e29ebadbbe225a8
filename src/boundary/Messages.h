// Values of the file-provider protocols as messages, and back.
//
// Whatever comes from the other side is hostile: it is copied into plain values here, and numbers stay as absurd as they came;
// whoever uses them checks them, as within one process. Errors come back without their dynamic type: domain, code, description and
// dictionary are what a host goes by.
//
// Threads: all functions on any thread; a builder or reader on one at a time. Reading an item's properties may do short file input.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "boundary/Wire.h"
#include "platform/file_provider/NSFileProviderItem.h"
#include "platform/values/NSError.h"

namespace kestrune::boundary {

/// The bytes of `text`, which must outlive the use of what is returned.
inline capnp::Data::Reader bytesOf(std::string_view text) {
  return {reinterpret_cast<const kj::byte*>(text.data()), text.size()};
}
inline std::string text(capnp::Data::Reader bytes) {
  return {reinterpret_cast<const char*>(bytes.begin()), bytes.size()};
}

/// All but its content policy.
void writeWithoutPolicy(wire::Item::Builder message, const platform::NSFileProviderItem& item);
void write(wire::Item::Builder message, const platform::NSFileProviderItem& item);
void write(wire::Error::Builder message, const platform::NSError& error);
void write(wire::Version::Builder message, const platform::NSFileProviderItemVersion& version);
void write(wire::Range::Builder message, platform::NSRange range);
void write(wire::Request::Builder message, const platform::NSFileProviderRequest& request);

platform::NSFileProviderItemPtr read(wire::Item::Reader message);
platform::NSErrorPtr read(wire::Error::Reader message);
platform::NSFileProviderItemVersion read(wire::Version::Reader message);
platform::NSRange read(wire::Range::Reader message);
platform::NSFileProviderRequest read(wire::Request::Reader message);
std::vector<std::string> read(capnp::List<capnp::Data>::Reader texts);

/// What a completion handler is called with, whichever it is.
struct Completed {
  struct Progress {
    std::int64_t total = 0;
    std::int64_t completed = 0;
    bool operator==(const Progress&) const = default;
  };

  platform::NSErrorPtr error;
  platform::NSFileProviderItemPtr item;
  std::optional<std::filesystem::path> url;
  platform::NSRange range;
  platform::NSFileProviderMaterializationFlags flags =
      platform::NSFileProviderMaterializationFlags::none;
  platform::NSFileProviderItemFields pendingFields = platform::NSFileProviderItemFields::none;
  bool shouldFetchContent = false;
  /// As it was then; zeros: nobody knows.
  Progress progress = {};
  /// In place of all else: it is never called.
  bool isDropped = false;
};
void write(wire::Answer::Builder message, const Completed& completed);
Completed read(wire::Answer::Reader message);

}  // namespace kestrune::boundary
