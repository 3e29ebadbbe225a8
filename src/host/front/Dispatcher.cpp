#include "host/front/Dispatcher.h"

#include <cerrno>

namespace kestrune::host {

namespace {

platform::NSErrorPtr readOnly() {
  return platform::NSPOSIXError(EROFS, "change a folder that is mounted for reading").share();
}

platform::NSErrorPtr noAttributes() {
  return platform::NSPOSIXError(ENOTSUP, "use extended attributes").share();
}

}  // namespace

// The signatures are the interface's: those who do something with the arguments keep them.
// NOLINTBEGIN(performance-unnecessary-value-param)
void Dispatcher::write(OpenFilePtr, std::int64_t, std::span<const std::byte>, Reply<Done> reply) {
  reply(readOnly());
}

void Dispatcher::flush(OpenFilePtr, Reply<Done> reply) { reply(Done()); }

void Dispatcher::sync(OpenFilePtr, Reply<Done> reply) { reply(Done()); }

void Dispatcher::syncFolder(NodeId, Reply<Done> reply) { reply(Done()); }

void Dispatcher::reserve(OpenFilePtr, std::int64_t, std::int64_t, bool, Reply<Done> reply) {
  reply(readOnly());
}

void Dispatcher::setAttributes(NodeId, OpenFilePtr, const AttributeChanges&,
                               Reply<Attributes> reply) {
  reply(readOnly());
}

void Dispatcher::create(NodeId, std::string, bool, OpenMode, Caller, Reply<Created> reply) {
  reply(readOnly());
}

void Dispatcher::makeFolder(NodeId, std::string, Reply<Entry> reply) { reply(readOnly()); }

void Dispatcher::removeFile(NodeId, std::string, Reply<Done> reply) { reply(readOnly()); }

void Dispatcher::removeFolder(NodeId, std::string, Reply<Done> reply) { reply(readOnly()); }

void Dispatcher::rename(NodeId, std::string, NodeId, std::string, RenameMode, Reply<Done> reply) {
  reply(readOnly());
}

Answer<std::string> Dispatcher::extendedAttribute(NodeId, const std::string&) {
  return noAttributes();
}

Answer<std::vector<std::string>> Dispatcher::extendedAttributeNames(NodeId) {
  return noAttributes();
}

void Dispatcher::setExtendedAttribute(NodeId, std::string, std::optional<std::string>, bool, bool,
                                      Reply<Done> reply) {
  reply(noAttributes());
}

void Dispatcher::succeed(NodeId) {}

// NOLINTEND(performance-unnecessary-value-param)

}  // namespace kestrune::host
