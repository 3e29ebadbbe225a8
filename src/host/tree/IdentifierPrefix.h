// What the identifiers of a folder's items have in common where an extension's identifiers are paths: "/a/b/". Items share it,
// and say only with a name what theirs is. It is the items', not their folder's: when the folder gets another identifier, theirs
// stay what they were until somebody tells otherwise.
//
// Threads: none of its own; the lock that guards the items guards it, and its count.
#pragma once

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <cstddef>
#include <string>
#include <string_view>

#include "host/tree/Text.h"

namespace kestrune::host {

struct IdentifierPrefix
    : boost::intrusive_ref_counter<IdentifierPrefix, boost::thread_unsafe_counter> {
  explicit IdentifierPrefix(std::string_view bytes) : text(bytes) {}
  const std::string text;
};
using IdentifierPrefixPtr = boost::intrusive_ptr<const IdentifierPrefix>;

/// An identifier in two pieces, either of which may be empty: what is compared is the whole.
struct IdentifierView {
  std::string_view head;
  std::string_view tail;

  // NOLINTNEXTLINE(google-explicit-constructor): whoever keeps it means a copy
  operator std::string() const { return std::string(head).append(tail); }
  bool operator==(std::string_view other) const {
    return other.size() == head.size() + tail.size() && other.starts_with(head) &&
           other.ends_with(tail);
  }
  bool operator==(const IdentifierView& other) const {
    if (head.size() == other.head.size()) return head == other.head && tail == other.tail;
    return *this == std::string(other);
  }
};

/// Up to which byte an identifier may be shared by a folder's items: to its last slash.
inline std::size_t prefixLength(std::string_view identifier) {
  return identifier.rfind('/') + 1;  // 0 for one without any
}

}  // namespace kestrune::host
