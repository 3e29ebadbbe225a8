// An extension that runs in another program, behind a socket.
//
// It implements every protocol that Boundary.capnp carries; whether the program's extension offers them, `greet` tells. Operations
// that were open when the program died fail with an interruption (BoundaryError.h), and so do all later ones: who wants to go on
// connects to another program.
//
// Threads: as the protocols say. Handlers and observers are called on the shared executor, or on a thread that counts as one of it and
// never inside the call.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/file_provider/ContentStreaming.h"
#include "platform/file_provider/NSFileProviderManager.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace kestrune::boundary {

/// What the program's extension may ask of its host.
struct HostServices {
  /// The domain's manager; null where there is none.
  std::function<std::shared_ptr<platform::NSFileProviderManager>()> manager;
  /// Puts a text on the session's pasteboard. Called on the shared executor.
  std::function<void(std::string text, platform::NSFileProviderManager::Handler)> copyText;
};

/// The protocols that not every extension has.
struct Offers {
  bool partialContents = false;
  bool streams = false;
  bool actions = false;
  bool operator==(const Offers&) const = default;
};

/// What a program tells of itself.
struct Greeting {
  Offers offers;
  /// What of its confinement it could not have, in words for people.
  std::vector<std::string> notEnforced;
};

class RemoteExtension final : public platform::NSFileProviderReplicatedExtension,
                              public platform::NSFileProviderPartialContentFetching,
                              public platform::NSFileProviderCustomAction,
                              public platform::ContentStreaming {
 public:
  /// The extension at the other end of `socket`, which is this object's from now on. Throws NSPOSIXError.
  static std::shared_ptr<RemoteExtension> connect(int socket, HostServices services);
  ~RemoteExtension() override;
  RemoteExtension(const RemoteExtension&) = delete;
  RemoteExtension& operator=(const RemoteExtension&) = delete;

  /// Called once, before all else; the program makes the domain's extension then. The error if it cannot be talked to: it is gone,
  /// or of another version.
  using Greeted = std::function<void(Greeting greeting, platform::NSErrorPtr error)>;
  void greet(const platform::NSFileProviderDomain& domain, Greeted greeted);
  /// Ends the connection: what is open fails as interrupted, and the program hears that its host is gone.
  void disconnect();
  /// Whether the connection has ended, or an operation found that the program is gone. True before any operation ends for that.
  bool isGone() const;

  void invalidate() override;
  platform::NSProgressPtr item(platform::NSFileProviderItemIdentifier identifier,
                               platform::NSFileProviderRequest request,
                               ItemHandler completionHandler) override;
  platform::NSProgressPtr fetchContents(
      platform::NSFileProviderItemIdentifier itemIdentifier,
      std::optional<platform::NSFileProviderItemVersion> requestedVersion,
      platform::NSFileProviderRequest request, ContentsHandler completionHandler) override;
  platform::NSProgressPtr fetchPartialContents(
      platform::NSFileProviderItemIdentifier itemIdentifier,
      platform::NSFileProviderItemVersion requestedVersion, platform::NSFileProviderRequest request,
      platform::NSRange minimalRange, std::int64_t alignment,
      platform::NSFileProviderFetchContentsOptions options,
      PartialContentsHandler completionHandler) override;
  platform::NSProgressPtr streamContents(platform::NSFileProviderItemIdentifier itemIdentifier,
                                         platform::NSFileProviderItemVersion requestedVersion,
                                         platform::NSFileProviderRequest request,
                                         platform::NSRange range, BytesHandler bytes,
                                         EndHandler completionHandler) override;
  platform::NSProgressPtr createItem(platform::NSFileProviderItemPtr itemTemplate,
                                     platform::NSFileProviderItemFields fields,
                                     std::optional<std::filesystem::path> url,
                                     platform::NSFileProviderCreateItemOptions options,
                                     platform::NSFileProviderRequest request,
                                     ChangeHandler completionHandler) override;
  platform::NSProgressPtr modifyItem(platform::NSFileProviderItemPtr item,
                                     platform::NSFileProviderItemVersion baseVersion,
                                     platform::NSFileProviderItemFields changedFields,
                                     std::optional<std::filesystem::path> newContents,
                                     platform::NSFileProviderModifyItemOptions options,
                                     platform::NSFileProviderRequest request,
                                     ChangeHandler completionHandler) override;
  platform::NSProgressPtr deleteItem(platform::NSFileProviderItemIdentifier identifier,
                                     platform::NSFileProviderItemVersion baseVersion,
                                     platform::NSFileProviderDeleteItemOptions options,
                                     platform::NSFileProviderRequest request,
                                     DoneHandler completionHandler) override;
  platform::NSProgressPtr performAction(
      std::string actionIdentifier,
      std::vector<platform::NSFileProviderItemIdentifier> itemIdentifiers,
      DoneHandler completionHandler) override;
  /// Never throws: where the program has no enumerator for the container, the first enumeration says so.
  std::shared_ptr<platform::NSFileProviderEnumerator> enumerator(
      platform::NSFileProviderItemIdentifier containerItemIdentifier,
      platform::NSFileProviderRequest request) override;

 private:
  struct Link;
  explicit RemoteExtension(std::shared_ptr<Link> link) : link_(std::move(link)) {}

  const std::shared_ptr<Link> link_;
};

}  // namespace kestrune::boundary
