#include "host/front/Handover.h"

#include <array>
#include <cerrno>
#include <limits>
#include <type_traits>

#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

constexpr std::string_view kMagic = "KESTRUNE";
// What the smallest record of any kind takes: more of them than fit into the rest are refused before room is made for them.
constexpr std::size_t kLeastRecord = 4;

[[noreturn]] void refuse(const std::string& why) {
  throw platform::NSPOSIXError(EPROTO, "read what the host before left behind, which " + why);
}

// One description of the format serves both directions.
class Writer {
 public:
  template <class T>
  void number(const T& value) {
    auto left = static_cast<std::make_unsigned_t<T>>(value);
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      bytes_ += static_cast<char>(left & 0xffU);
      if constexpr (sizeof(T) > 1) left >>= 8U;
    }
  }
  void flag(bool value) { number(static_cast<std::uint8_t>(value ? 1 : 0)); }
  void text(const std::string& value) {
    if (value.size() > std::numeric_limits<std::uint32_t>::max()) refuse("is too large");
    number(static_cast<std::uint32_t>(value.size()));
    bytes_ += value;
  }
  template <class T, class Each>
  void list(const std::vector<T>& values, const Each& each) {
    if (values.size() > std::numeric_limits<std::uint32_t>::max()) refuse("is too large");
    number(static_cast<std::uint32_t>(values.size()));
    for (const T& value : values) each(*this, value);
  }
  void raw(std::string_view bytes) { bytes_ += bytes; }
  std::string take() { return std::move(bytes_); }

 private:
  std::string bytes_;
};

class Reader {
 public:
  explicit Reader(std::string_view bytes) : left_(bytes) {}

  std::string_view raw(std::size_t size) {
    if (size > left_.size()) refuse("ends too early");
    const std::string_view bytes = left_.substr(0, size);
    left_.remove_prefix(size);
    return bytes;
  }
  template <class T>
  void number(T& value) {
    const std::string_view bytes = raw(sizeof(T));
    std::uint64_t whole = 0;
    for (std::size_t i = sizeof(T); i-- > 0;)
      whole = whole << 8U | static_cast<std::uint8_t>(bytes[i]);
    value = static_cast<T>(whole);
  }
  void flag(bool& value) {
    std::uint8_t byte = 0;
    number(byte);
    if (byte > 1) refuse("has a value that cannot be");
    value = byte == 1;
  }
  void text(std::string& value) {
    std::uint32_t size = 0;
    number(size);
    value = raw(size);
  }
  template <class T, class Each>
  void list(std::vector<T>& values, const Each& each) {
    std::uint32_t count = 0;
    number(count);
    if (count > left_.size() / kLeastRecord) refuse("ends too early");
    values.reserve(count);
    for (std::uint32_t i = 0; i < count; ++i) {
      T value{};
      each(*this, value);
      values.push_back(std::move(value));
    }
  }
  bool isAtEnd() const { return left_.empty(); }

 private:
  std::string_view left_;
};

constexpr auto kTime = [](auto& io, auto& time) {
  io.number(time.seconds);
  io.number(time.nanoseconds);
};

constexpr auto kNode = [](auto& io, auto& node) {
  io.number(node.id);
  io.number(node.item);
  io.number(node.references);
  io.flag(node.isDetached);
  if (!node.isDetached) return;
  io.flag(node.isExecutable);
  io.number(node.sizeBytes);
  kTime(io, node.modified);
  kTime(io, node.changed);
};

constexpr auto kObject = [](auto& io, auto& object) {
  io.number(object.item);
  io.flag(object.isItems);
  io.number(object.number);
  io.text(object.version);
  io.number(object.sizeBytes);
  io.number(object.fetchableBytes);
  io.text(object.present);
  io.number(object.edits);
  io.flag(object.isEdited);
};

constexpr auto kFile = [](auto& io, auto& file) {
  io.number(file.handle);
  io.number(file.backing);
  io.number(file.node);
  io.number(file.item);
  io.number(file.object);
  io.flag(file.writes);
  io.flag(file.mayFetch);
  io.flag(file.listedEmpty);
};

constexpr auto kText = [](auto& io, auto& text) { io.text(text); };

// Kinds of updates by their numbers in the file.
constexpr std::array<CacheUpdate::Kind, 4> kKinds = {
    CacheUpdate::Kind::entry, CacheUpdate::Kind::deletion, CacheUpdate::Kind::attributes,
    CacheUpdate::Kind::listing};

void putUpdate(Writer& io, const CacheUpdate& update) {
  std::uint8_t kind = 0;
  while (kKinds.at(kind) != update.kind) ++kind;
  io.number(kind);
  io.number(update.node);
  io.text(update.name);
  io.number(update.child);
}

void takeUpdate(Reader& io, CacheUpdate& update) {
  std::uint8_t kind = 0;
  io.number(kind);
  if (kind >= kKinds.size()) refuse("has a value that cannot be");
  update.kind = kKinds.at(kind);
  io.number(update.node);
  io.text(update.name);
  io.number(update.child);
}

// All but the head and the updates.
template <class Io, class Value>
void passBody(Io& io, Value& handover) {
  io.number(handover.replicaLock);
  io.number(handover.restarts);
  io.number(handover.begun);
  io.flag(handover.othersMayEnter);
  io.flag(handover.extendedAttributes);
  io.text(handover.init);
  io.text(handover.initAnswer);
  io.flag(handover.passthroughOffered);
  io.flag(handover.passthroughInUse);
  io.number(handover.nextHandle);
  io.number(handover.nextNode);
  io.list(handover.nodes, kNode);
  io.list(handover.objects, kObject);
  io.list(handover.files, kFile);
  io.list(handover.requests, kText);
}

Handover::Head takeHead(Reader& io) {
  Handover::Head head;
  if (io.raw(kMagic.size()) != kMagic) refuse("is none of ours");
  io.number(head.version);
  io.number(head.device);
  std::string mountPoint;
  io.text(mountPoint);
  head.mountPoint = mountPoint;
  if (head.device < 0 || !head.mountPoint.is_absolute()) refuse("has a value that cannot be");
  return head;
}

// What would otherwise be looked up where nothing is.
void check(const Handover& handover) {
  for (const Handover::File& file : handover.files) {
    if (file.object >= handover.objects.size() || file.handle == 0 ||
        file.handle >= handover.nextHandle || file.backing < 0)
      refuse("has a value that cannot be");
  }
  for (const Handover::Node& node : handover.nodes) {
    if (node.id < kRootNode || node.id >= handover.nextNode) refuse("has a value that cannot be");
  }
}

}  // namespace

std::string Handover::encode() const {
  Writer io;
  io.raw(kMagic);
  io.number(head.version);
  io.number(head.device);
  io.text(head.mountPoint.native());
  passBody(io, *this);
  io.list(updates, [](Writer& to, const CacheUpdate& update) { putUpdate(to, update); });
  return io.take();
}

Handover::Head Handover::parseHead(std::string_view bytes) {
  Reader io(bytes);
  return takeHead(io);
}

Handover Handover::parse(std::string_view bytes) {
  Reader io(bytes);
  Handover handover;
  handover.head = takeHead(io);
  if (handover.head.version != kVersion) {
    refuse("is of version " + std::to_string(handover.head.version) +
           ", where this program reads " + std::to_string(kVersion));
  }
  passBody(io, handover);
  std::uint32_t count = 0;
  io.number(count);
  for (std::uint32_t i = 0; i < count; ++i) {
    CacheUpdate update{CacheUpdate::Kind::entry, 0};
    takeUpdate(io, update);
    handover.updates.push_back(std::move(update));
  }
  if (!io.isAtEnd()) refuse("is longer than it should be");
  check(handover);
  return handover;
}

}  // namespace kestrune::host
