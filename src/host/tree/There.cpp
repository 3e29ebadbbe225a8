#include "host/tree/There.h"

#include <boost/container/small_vector.hpp>
#include <cassert>
#include <cstring>
#include <string>
#include <type_traits>
#include <utility>

namespace kestrune::host {

namespace {

// The block: flags, [prefix,] name here; where there is a side there: policy, modified, folder, size, [name,] [identifier,]
// content version, [metadata version]. Of each text the length comes first. Numbers are in groups of seven bits.
constexpr std::uint8_t kIsThere = 1;
constexpr std::uint8_t kHasPrefix = 2;
constexpr std::uint8_t kSameName = 4;
constexpr std::uint8_t kSameVersions = 8;
constexpr std::uint8_t kIsProvisional = 16;
constexpr std::uint8_t kIsHeldDeletion = 32;

struct SharedPrefix {
  const IdentifierPrefix* pointer;
};

class Writer {
 public:
  template <class Value>
  void raw(Value value) {
    static_assert(std::is_trivially_copyable_v<Value>);
    const std::size_t at = bytes_.size();
    bytes_.resize(at + sizeof value);
    std::memcpy(bytes_.data() + at, &value, sizeof value);
  }
  void number(std::uint64_t value) {
    for (; value >= 0x80U; value >>= 7U) bytes_.push_back(static_cast<char>(value | 0x80U));
    bytes_.push_back(static_cast<char>(value));
  }
  void text(std::string_view text) {
    number(text.size());
    bytes_.insert(bytes_.end(), text.begin(), text.end());
  }
  const auto& bytes() const { return bytes_; }

 private:
  boost::container::small_vector<char, 256> bytes_;
};

}  // namespace

struct There::Parts {
  Text nameHere;
  const IdentifierPrefix* prefix = nullptr;
  bool isThere = false;
  ThereView there;
};

class There::Reader {
 public:
  explicit Reader(const char* block) : at_(block) {}
  template <class Value>
  Value raw() {
    Value value;
    std::memcpy(&value, at_, sizeof value);
    at_ += sizeof value;
    return value;
  }
  std::uint64_t number() {
    std::uint64_t value = 0;
    for (unsigned shift = 0;; shift += 7) {
      const auto byte = raw<std::uint8_t>();
      value |= static_cast<std::uint64_t>(byte & 0x7fU) << shift;
      if (byte < 0x80U) return value;
    }
  }
  Text text() {
    const std::size_t size = number();
    return Text({std::exchange(at_, at_ + size), size});
  }

 private:
  const char* at_;
};

There::~There() {
  if (block_ == nullptr) return;
  if (const IdentifierPrefix* prefix = parts().prefix) intrusive_ptr_release(prefix);
}

bool There::has_value() const {
  return block_ && (Reader(block_.get()).raw<std::uint8_t>() & kIsThere) != 0;
}

Text There::nameHere() const {
  if (!block_) return {};
  Reader reader(block_.get());
  if ((reader.raw<std::uint8_t>() & kHasPrefix) != 0) reader.raw<SharedPrefix>();
  return reader.text();
}

There::Parts There::parts() const {
  Parts parts;
  if (!block_) return parts;
  Reader reader(block_.get());
  const auto flags = reader.raw<std::uint8_t>();
  const auto has = [flags](std::uint8_t flag) { return (flags & flag) != 0; };
  if (has(kHasPrefix)) parts.prefix = reader.raw<SharedPrefix>().pointer;
  parts.nameHere = reader.text();
  parts.isThere = has(kIsThere);
  if (!parts.isThere) return parts;
  ThereView& there = parts.there;
  there.isProvisional = has(kIsProvisional);
  there.isHeldDeletion = has(kIsHeldDeletion);
  there.policy = static_cast<platform::NSFileProviderContentPolicy>(reader.number());
  there.modified = reader.raw<platform::Date>();
  there.folder = reader.number();
  there.sizeBytes = static_cast<std::int64_t>(reader.number());
  there.name = has(kSameName) ? parts.nameHere : reader.text();
  if (has(kHasPrefix)) {
    there.identifier = {parts.prefix->text, there.name};
  } else {
    there.identifier = {reader.text(), {}};
  }
  there.version.contentVersion = reader.text();
  there.version.metadataVersion = has(kSameVersions) ? there.version.contentVersion : reader.text();
  return parts;
}

bool ThereView::operator==(const ThereState& state) const {
  return identifier == state.identifier && folder == state.folder && name == state.name &&
         version.contentVersion == state.version.contentVersion &&
         version.metadataVersion == state.version.metadataVersion && sizeBytes == state.sizeBytes &&
         modified == state.modified && policy == state.policy &&
         isProvisional == state.isProvisional && isHeldDeletion == state.isHeldDeletion;
}

ThereView There::operator*() const {
  assert(has_value());
  return parts().there;
}

// `parts` may lie in the block that goes. A block without anything is none.
void There::pack(const Parts& parts) {
  const ThereView& there = parts.there;
  const bool isSameName = there.name == parts.nameHere;
  const bool isSameVersions = there.version.contentVersion == there.version.metadataVersion;
  Writer writer;
  unsigned flags = 0;
  if (parts.isThere) {
    flags = kIsThere | (parts.prefix != nullptr ? kHasPrefix : 0U) | (isSameName ? kSameName : 0U) |
            (isSameVersions ? kSameVersions : 0U) | (there.isProvisional ? kIsProvisional : 0U) |
            (there.isHeldDeletion ? kIsHeldDeletion : 0U);
  }
  writer.raw(static_cast<std::uint8_t>(flags));
  if (parts.isThere && parts.prefix != nullptr) writer.raw(SharedPrefix{parts.prefix});
  writer.text(parts.nameHere);
  if (parts.isThere) {
    writer.number(static_cast<std::uint64_t>(there.policy));
    writer.raw(there.modified);
    writer.number(there.folder);
    writer.number(static_cast<std::uint64_t>(there.sizeBytes));
    if (!isSameName) writer.text(there.name);
    if (parts.prefix == nullptr) writer.text(std::string(there.identifier));
    writer.text(there.version.contentVersion);
    if (!isSameVersions) writer.text(there.version.metadataVersion);
  }
  if (parts.isThere && parts.prefix != nullptr) intrusive_ptr_add_ref(parts.prefix);
  const IdentifierPrefix* before = block_ ? this->parts().prefix : nullptr;
  if (!parts.isThere && parts.nameHere.empty()) {
    block_ = nullptr;
  } else {
    block_ = std::unique_ptr<char[]>(new char[writer.bytes().size()]);
    std::memcpy(block_.get(), writer.bytes().data(), writer.bytes().size());
  }
  if (before != nullptr) intrusive_ptr_release(before);
}

void There::set(const ThereState& state, IdentifierPrefixPtr& prefix) {
  set(nameHere(), state, prefix);
}

void There::set(std::string_view nameHere, const ThereState& state, IdentifierPrefixPtr& prefix) {
  const std::size_t shared = prefixLength(state.identifier);
  const std::string_view head = std::string_view(state.identifier).substr(0, shared);
  const bool isPath = shared > 0 && std::string_view(state.identifier).substr(shared) == state.name;
  const Parts known = parts();
  if (isPath && (prefix == nullptr || prefix->text != head)) {
    const bool isItsOwn = known.prefix != nullptr && known.prefix->text == head;
    prefix = IdentifierPrefixPtr(isItsOwn ? known.prefix : new IdentifierPrefix(head));
  }
  const IdentifierPrefix* used = isPath ? prefix.get() : nullptr;
  const bool isSame = known.isThere && known.there == state && known.nameHere == nameHere;
  if (isSame && known.prefix == used) return;  // most of what is listed again
  Parts parts;
  parts.nameHere = Text(nameHere);
  parts.prefix = used;
  parts.isThere = true;
  parts.there = {
      .identifier = {state.identifier, {}},
      .folder = state.folder,
      .name = Text(state.name),
      .version = {Text(state.version.contentVersion), Text(state.version.metadataVersion)},
      .sizeBytes = state.sizeBytes,
      .modified = state.modified,
      .policy = state.policy,
      .isProvisional = state.isProvisional,
      .isHeldDeletion = state.isHeldDeletion};
  pack(parts);
}

void There::reset() {
  if (!has_value()) return;
  Parts parts;
  parts.nameHere = nameHere();
  pack(parts);
}

void There::setNameHere(std::string_view name) {
  if (name == nameHere()) return;
  Parts parts = this->parts();
  parts.nameHere = Text(name);
  pack(parts);
}

}  // namespace kestrune::host
