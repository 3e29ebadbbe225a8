// Extended attributes, for mounts that show them.

#include <sys/xattr.h>

#include <cerrno>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "host/front/FuseRequest.h"

namespace kestrune::host {

namespace {

// The others belong to the system (capabilities, access lists, labels), which has no use for them here.
bool isOurs(fuse_req_t request, std::string_view name) {
  if (name.starts_with("user.")) return true;
  fuse_reply_err(request, ENOTSUP);
  return false;
}

// `size`: the program's room; 0: it only wants to know how much it needs.
void replyText(fuse_req_t request, const std::string& text, std::size_t size) {
  if (size == 0) {
    fuse_reply_xattr(request, text.size());
  } else if (size < text.size()) {
    fuse_reply_err(request, ERANGE);
  } else {
    fuse_reply_buf(request, text.data(), text.size());
  }
}

void getAttribute(fuse_req_t request, fuse_ino_t node, const char* name, std::size_t size) {
  if (!isOurs(request, name)) return;
  const auto answer = dispatcherOf(request).extendedAttribute(node, name);
  if (answer.ok()) {
    replyText(request, answer.value(), size);
  } else {
    replyError(request, *answer.error());
  }
}

void listAttributes(fuse_req_t request, fuse_ino_t node, std::size_t size) {
  const auto answer = dispatcherOf(request).extendedAttributeNames(node);
  if (!answer.ok()) {
    replyError(request, *answer.error());
    return;
  }
  std::string names;
  for (const std::string& name : answer.value()) {
    names += name;
    names += '\0';
  }
  replyText(request, names, size);
}

void setAttribute(fuse_req_t request, fuse_ino_t node, const char* name, const char* value,
                  std::size_t size, int flags) {
  if (!isOurs(request, name)) return;
  if ((flags & ~(XATTR_CREATE | XATTR_REPLACE)) != 0) {
    fuse_reply_err(request, EINVAL);
    return;
  }
  auto call = beginCall(request, Effect::changes);
  if (!call) return;
  dispatcherOf(request).setExtendedAttribute(
      node, name, std::string(value, size), (flags & XATTR_CREATE) != 0,
      (flags & XATTR_REPLACE) != 0, replyingDone(request, call));
}

void removeAttribute(fuse_req_t request, fuse_ino_t node, const char* name) {
  if (!isOurs(request, name)) return;
  auto call = beginCall(request, Effect::changes);
  if (!call) return;
  dispatcherOf(request).setExtendedAttribute(node, name, std::nullopt, false, true,
                                             replyingDone(request, call));
}

}  // namespace

void addExtendedAttributeOperations(fuse_lowlevel_ops& operations) {
  operations.getxattr = &getAttribute;
  operations.listxattr = &listAttributes;
  operations.setxattr = &setAttribute;
  operations.removexattr = &removeAttribute;
}

}  // namespace kestrune::host
