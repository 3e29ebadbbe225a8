#include "host/front/FuseDevice.h"

#include <linux/fuse.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "host/front/AnswerPipe.h"
#include "host/front/FuseRequest.h"
#include "platform/values/NSError.h"

namespace kestrune::host {

namespace {

// From the kernel's include/uapi/linux/fuse.h, protocol 7.40 (Linux 6.9), which is newer than Debian 12's copy of it.
// FUSE_PASSTHROUGH is bit 37 of the flags, whose upper half is `flags2`.
constexpr std::uint32_t kPassthroughInFlags2 = 1U << (37U - 32U);
// How many file systems may lie upon each other: the local file's own is none of those that lie on others.
constexpr std::uint32_t kStackDepth = 1;
// struct fuse_backing_map
struct BackingMap {
  std::int32_t descriptor;
  std::uint32_t flags;
  std::uint64_t padding;
};
constexpr unsigned long kBackingOpen = _IOW(229, 1, BackingMap);
constexpr unsigned long kBackingClose = _IOW(229, 2, std::uint32_t);
// struct fuse_init_out has `max_stack_depth` where the older header has the first unused word.
constexpr std::size_t kStackDepthOffset = offsetof(fuse_init_out, unused);
static_assert(kStackDepthOffset == 36 && sizeof(fuse_init_out) == 64);

// Measured on Linux 6.18: below this the copy costs less than the calls that save it; 64 KiB cost a quarter more, 256 KiB a quarter less.
constexpr std::size_t kLeastSpliced = 256U << 10U;

// What the answer consists of that this thread is giving through the library, which knows only answers from memory.
struct Source {
  int file;
  off_t offset;
  std::size_t length;
};
thread_local const Source* answeredFrom = nullptr;

// Stays with its thread: allocating and touching a new one costs more than the copy into it.
std::vector<char>& copyBuffer() {
  thread_local std::vector<char> buffer(kLargestRead);
  return buffer;
}

// The request that the kernel says to have been interrupted, if `request` is its word of that.
std::optional<std::uint64_t> interruptedBy(std::span<const char> request) {
  fuse_in_header header = {};
  fuse_interrupt_in body = {};
  if (request.size() < sizeof(header) + sizeof(body)) return std::nullopt;
  std::memcpy(&header, request.data(), sizeof(header));
  if (header.opcode != FUSE_INTERRUPT) return std::nullopt;
  std::memcpy(&body, request.data() + sizeof(header), sizeof(body));
  return body.unique;
}

FuseDevice& deviceOf(void* userData) { return static_cast<FuseFront*>(userData)->device(); }

ssize_t receiveFor(int, void* buffer, std::size_t size, void* userData) {
  return deviceOf(userData).receive(buffer, size);
}

ssize_t sendFor(int, iovec* parts, int count, void* userData) {
  return deviceOf(userData).send(parts, count);
}

}  // namespace

thread_local std::span<const char> FuseDevice::current_;

void FuseDevice::attach(fuse_session* session, std::function<void()> agreed) {
  agreed_ = std::move(agreed);
  setSession(session, fuse_session_fd(session));
}

void FuseDevice::setSession(fuse_session* session, int descriptor) {
  fuse_custom_io io = {};
  io.read = &receiveFor;
  io.writev = &sendFor;
  const int result = fuse_session_custom_io(session, &io, descriptor);
  if (result != 0) throw platform::NSPOSIXError(-result, "set up a FUSE session");
  descriptor_ = descriptor;
}

void FuseDevice::attachTo(fuse_session* session, int descriptor, const Agreement& agreement) {
  agreed_ = [] {};
  setSession(session, descriptor);
  isRepeated_ = true;
  process(session, agreement.init);
  isRepeated_ = false;
  if (agreement_.init != agreement.init || agreement_.answer != agreement.answer)
    throw platform::NSPOSIXError(EPROTO, "serve a mount whose host agreed on other terms");
}

void FuseDevice::process(fuse_session* session, std::string request) {
  received(request);
  fuse_buf buffer = {};
  buffer.mem = request.data();
  buffer.size = request.size();
  fuse_session_process_buf(session, &buffer);
  current_ = {};
}

ssize_t FuseDevice::receive(void* buffer, std::size_t size) {
  const ssize_t length = ::read(descriptor_, buffer, size);
  if (length <= 0) return length;
  received({static_cast<const char*>(buffer), static_cast<std::size_t>(length)});
  return length;
}

void FuseDevice::received(std::span<const char> request) {
  current_ = request;
  noteInit(request.data(), request.size());
  if (const auto interrupted = interruptedBy(request)) unanswered_.interrupted(*interrupted);
}

void FuseDevice::wasInterrupted() {
  fuse_in_header header = {};
  std::memcpy(&header, current_.data(), sizeof(header));
  unanswered_.interrupted(header.unique);
}

// The library's buffer is aligned for anything.
void FuseDevice::noteInit(const void* request, std::size_t size) {
  const auto* header = static_cast<const fuse_in_header*>(request);
  if (size < sizeof(fuse_in_header) + sizeof(fuse_init_in) || header->opcode != FUSE_INIT) return;
  const auto* offer = reinterpret_cast<const fuse_init_in*>(header + 1);
  isPassthroughOffered_ =
      (offer->flags & FUSE_INIT_EXT) != 0 && (offer->flags2 & kPassthroughInFlags2) != 0;
  agreement_.init.assign(static_cast<const char*>(request), size);
  init_ = header->unique;
}

bool FuseDevice::isInitAnswer(const iovec* parts) const {
  return init_ != 0 && static_cast<const fuse_out_header*>(parts[0].iov_base)->unique == init_;
}

ssize_t FuseDevice::send(const iovec* parts, int count) {
  if (isInitAnswer(parts)) {
    amendInit(parts, count);
    if (isRepeated_) return static_cast<const fuse_out_header*>(parts[0].iov_base)->len;
  }
  const std::uint64_t unique = static_cast<const fuse_out_header*>(parts[0].iov_base)->unique;
  if (!unanswered_.beginAnswer(unique)) {
    errno = ENOENT;  // as if it had been given up
    return -1;
  }
  const ssize_t result = give(parts, count);
  const int error = errno;
  unanswered_.endAnswer(unique);
  errno = error;
  return result;
}

ssize_t FuseDevice::give(const iovec* parts, int count) const {
  if (answeredFrom != nullptr && count == 2) return sendFromFile(parts);
  return ::writev(descriptor_, parts, count);
}

void FuseDevice::replyFromFile(fuse_req* request, int file, off_t offset, std::size_t length) {
  std::vector<char>& buffer = copyBuffer();
  const Source source = {file, offset, std::min(length, buffer.size())};
  answeredFrom = &source;
  fuse_reply_buf(request, buffer.data(), source.length);
  answeredFrom = nullptr;
}

// `parts`: the header, and memory to copy the bytes into if they cannot go uncopied.
ssize_t FuseDevice::sendFromFile(const iovec* parts) const {
  const Source& source = *answeredFrom;
  thread_local AnswerPipe pipe;
  if (source.length >= kLeastSpliced) {
    const auto sent = pipe.send(descriptor_, parts[0], source.file, source.offset, source.length);
    if (sent) return *sent;
  }
  auto* const bytes = static_cast<char*>(parts[1].iov_base);
  std::size_t got = 0;
  int error = 0;
  while (got < source.length && error == 0) {
    const ssize_t count = ::pread(source.file, bytes + got, source.length - got,
                                  source.offset + static_cast<off_t>(got));
    if (count == 0) break;
    if (count > 0) got += static_cast<std::size_t>(count);
    if (count < 0 && errno != EINTR) error = errno;
  }
  auto* const header = static_cast<fuse_out_header*>(parts[0].iov_base);
  if (got == 0) header->error = -error;
  header->len = static_cast<std::uint32_t>(sizeof(*header) + got);
  const std::array<iovec, 2> answer = {parts[0], {bytes, got}};
  return ::writev(descriptor_, answer.data(), got > 0 ? 2 : 1);
}

void FuseDevice::amendInit(const iovec* parts, int count) {
  const auto* header = static_cast<const fuse_out_header*>(parts[0].iov_base);
  init_ = 0;
  if (header->error != 0 || count != 2) return;
  auto* answer = static_cast<fuse_init_out*>(parts[1].iov_base);
  if (isPassthroughOffered_ && parts[1].iov_len == sizeof(fuse_init_out)) {
    answer->flags |= FUSE_INIT_EXT;
    answer->flags2 |= kPassthroughInFlags2;
    std::memcpy(reinterpret_cast<char*>(answer) + kStackDepthOffset, &kStackDepth,
                sizeof(kStackDepth));
    agreed_();
  }
  agreement_.answer.assign(static_cast<const char*>(parts[1].iov_base), parts[1].iov_len);
}

std::optional<std::int32_t> FuseDevice::open(int descriptor) {
  BackingMap map = {descriptor, 0, 0};
  const int number = ::ioctl(descriptor_, kBackingOpen, &map);
  if (number <= 0) return std::nullopt;
  return number;
}

void FuseDevice::close(std::int32_t number) {
  auto given = static_cast<std::uint32_t>(number);
  ::ioctl(descriptor_, kBackingClose,
          &given);  // fails only for a number that the kernel never gave
}

}  // namespace kestrune::host
