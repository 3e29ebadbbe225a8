// A protocol beside the platform's, between an extension and a host of ours: bytes of a file as they arrive.
//
// The platform's partial fetching hands over a file when a whole range is in it, and the extension decides how long the
// range is, because on the platform only the extension sees a pattern in what is asked for. A host that sees every read
// itself asks for what it wants, gets the bytes while they come, and puts them where they belong. An extension may
// implement both; a host asks with dynamic_cast.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <string_view>
#include <utility>

#include "platform/file_provider/NSFileProviderReplicatedExtension.h"
#include "platform/values/ByteBuffer.h"

namespace kestrune::platform {

class ContentStreaming {
 public:
  /// A piece of 1 MiB, and what may come with its last bytes.
  static constexpr std::size_t kLentBytes = (1U << 20U) + (64U << 10U);

  /// Where the bytes of a stream go: a function, and optionally memory for them. One call at a time, of either; neither throws.
  class BytesHandler {
   public:
    using Take = std::function<bool(std::int64_t offset, std::string_view bytes)>;
    using Lend = std::function<ByteBuffer()>;

    BytesHandler() = default;
    template <std::invocable<std::int64_t, std::string_view> Function>
    BytesHandler(Function take, Lend lend = nullptr)  // NOLINT(google-explicit-constructor)
        : take_(std::move(take)), lend_(std::move(lend)) {}

    /// Takes the bytes that follow those of the call before, the first ones those at the range's start. False: no more are
    /// wanted. The bytes are the caller's again when it returns, unless they lie in memory that was lent; no more are read
    /// from the network than fit the caller's buffers meanwhile.
    bool operator()(std::int64_t offset, std::string_view bytes) const {
      return take_(offset, bytes);
    }
    bool lends() const { return lend_ != nullptr; }
    /// Memory of kLentBytes to gather bytes in, which spares the receiver a copy of them; empty where none is left. What was taken from
    /// there is the receiver's for as long as it likes: the caller puts nothing else there, and lets go of the memory. REQUIRES: it lends.
    ByteBuffer lend() const { return lend_(); }

   private:
    Take take_;
    Lend lend_;
  };
  /// After the last bytes. The error, if not all were handed over that were wanted; with NSFileProviderError
  /// versionNoLongerAvailable the item as it is now.
  using EndHandler = std::function<void(NSFileProviderItemPtr item, NSErrorPtr error)>;

  virtual ~ContentStreaming() = default;

  /// Exactly the bytes of `range`, which lies within the file and is not empty, of no other version of the contents than
  /// the requested one. Ends early, without an error, when the progress is cancelled.
  virtual NSProgressPtr streamContents(NSFileProviderItemIdentifier itemIdentifier,
                                       NSFileProviderItemVersion requestedVersion,
                                       NSFileProviderRequest request, NSRange range,
                                       BytesHandler bytes, EndHandler completionHandler) = 0;
};

}  // namespace kestrune::platform
