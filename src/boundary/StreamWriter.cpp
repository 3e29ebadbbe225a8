#include "boundary/StreamWriter.h"

#include <algorithm>
#include <functional>
#include <utility>

#include "platform/file_provider/ContentStreaming.h"

namespace kestrune::boundary {

using platform::ByteBuffer;
using platform::MutexLock;

namespace {

constexpr std::size_t kSlotBytes = platform::ContentStreaming::kLentBytes;

}  // namespace

// A piece that the host was told of. Whatever becomes of the answer, nobody waits for it for ever.
class StreamWriter::Sent {
 public:
  Sent(std::shared_ptr<StreamWriter> writer, std::size_t slot)
      : writer_(std::move(writer)), slot_(slot) {}
  ~Sent() {
    if (writer_) writer_->answered(slot_, false);
  }
  Sent(Sent&&) noexcept = default;
  Sent(const Sent&) = delete;
  Sent& operator=(const Sent&) = delete;
  Sent& operator=(Sent&&) = delete;

  void answered(bool wanted) { std::exchange(writer_, nullptr)->answered(slot_, wanted); }

 private:
  std::shared_ptr<StreamWriter> writer_;
  std::size_t slot_;
};

StreamWriter::StreamWriter(std::shared_ptr<Loop> loop, std::shared_ptr<wire::Taker::Client> taker,
                           std::shared_ptr<SharedMemory> memory)
    : loop_(std::move(loop)),
      taker_(std::move(taker)),
      memory_(std::move(memory)),
      slots_(std::max<std::size_t>(1, memory_->bytes().size() / kSlotBytes)) {}

bool StreamWriter::write(std::int64_t offset, std::string_view bytes) {
  const std::span<char> all = memory_->bytes();
  const std::less<const char*> before;
  if (!before(bytes.data(), all.data()) && before(bytes.data(), all.data() + all.size())) {
    send(offset, static_cast<std::size_t>(bytes.data() - all.data()) / kSlotBytes, bytes);
    bytes = {};
  }
  while (!bytes.empty()) {
    const auto slot = awaitFree();
    if (!slot) return false;
    const std::span<char> memory = memoryOf(*slot);
    const std::size_t length = bytes.copy(memory.data(), memory.size());
    send(offset, *slot, {memory.data(), length});
    letGo(*slot);
    bytes.remove_prefix(length);
    offset += static_cast<std::int64_t>(length);
  }
  MutexLock lock(mutex_);
  return isWanted_;
}

ByteBuffer StreamWriter::lend() {
  std::optional<std::size_t> slot;
  {
    MutexLock lock(mutex_);
    // Never the last one: whoever keeps what was lent and writes from elsewhere would wait for ever.
    const auto held = std::ranges::count_if(slots_, &Slot::isHeld);
    if (static_cast<std::size_t>(held) + 1 < slots_.size()) slot = takeFreeLocked();
  }
  if (!slot) return {};
  return {memoryOf(*slot), [self = shared_from_this(), slot = *slot] { self->letGo(slot); }};
}

// The first one: memory that was used before is in the caches, and no page of it is new.
std::optional<std::size_t> StreamWriter::takeFreeLocked() {
  const auto free =
      std::ranges::find_if(slots_, [](const Slot& slot) { return !slot.isHeld && slot.sent == 0; });
  if (free == slots_.end()) return std::nullopt;
  free->isHeld = true;
  return free - slots_.begin();
}

std::optional<std::size_t> StreamWriter::awaitFree() {
  MutexLock lock(mutex_);
  while (isWanted_) {
    if (const auto slot = takeFreeLocked()) return slot;
    lock.wait(changed_);
  }
  return std::nullopt;
}

std::span<char> StreamWriter::memoryOf(std::size_t slot) const {
  const std::span<char> all = memory_->bytes();
  return all.subspan(slot * kSlotBytes, std::min(kSlotBytes, all.size() - slot * kSlotBytes));
}

void StreamWriter::send(std::int64_t offset, std::size_t slot, std::string_view bytes) {
  {
    MutexLock lock(mutex_);
    ++slots_[slot].sent;
  }
  const auto position = static_cast<std::uint64_t>(bytes.data() - memory_->bytes().data());
  loop_->post([taker = taker_, offset, position, length = bytes.size(),
               sent = Sent(shared_from_this(), slot)]() mutable {
    auto request = taker->takeRequest(kUsualSize);
    request.setOffset(offset);
    request.setPosition(position);
    request.setLength(static_cast<std::uint32_t>(length));
    request.send()
        .then(
            [sent = std::move(sent)](auto&& answer) mutable { sent.answered(answer.getWanted()); })
        .detach([](kj::Exception&&) { /* the piece says so itself when it is let go */ });
  });
}

void StreamWriter::letGo(std::size_t slot) {
  MutexLock lock(mutex_);
  slots_[slot].isHeld = false;
  changed_.notify_all();
}

void StreamWriter::answered(std::size_t slot, bool wanted) {
  MutexLock lock(mutex_);
  --slots_[slot].sent;
  isWanted_ = isWanted_ && wanted;
  changed_.notify_all();
}

}  // namespace kestrune::boundary
