#include "host/front/UnansweredRequests.h"

#include <linux/fuse.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace kestrune::host {

namespace {

using platform::MutexLock;

// Flushing to the disk changes nothing that anybody sees. The others only look, and what their answers would have given (a reference to
// a node) is given by the answer that arrives.
bool mayBeRepeated(std::uint32_t operation) {
  switch (operation) {
    case FUSE_LOOKUP:
    case FUSE_OPENDIR:
    case FUSE_READ:
    case FUSE_FSYNC:
    case FUSE_FSYNCDIR:
      return true;
    default:
      return false;
  }
}

// What the kernel sends for `request`, which nobody answers. It differs by the lowest bit from the one that it is about.
std::string interruptOf(const std::string& request) {
  fuse_in_header header = {};
  std::memcpy(&header, request.data(), sizeof(header));
  const fuse_interrupt_in body = {header.unique};
  header.unique |= 1U;
  header.opcode = FUSE_INTERRUPT;
  header.len = sizeof(header) + sizeof(body);
  std::string bytes(header.len, '\0');
  std::memcpy(bytes.data(), &header, sizeof(header));
  std::memcpy(bytes.data() + sizeof(header), &body, sizeof(body));
  return bytes;
}

}  // namespace

void UnansweredRequests::add(std::span<const char> request) {
  fuse_in_header header = {};
  if (request.size() < sizeof(header)) return;
  std::memcpy(&header, request.data(), sizeof(header));
  Request added;
  added.mayRepeat = mayBeRepeated(header.opcode);
  if (added.mayRepeat) added.bytes.assign(request.begin(), request.end());
  MutexLock lock(mutex_);
  requests_.insert_or_assign(header.unique, std::move(added));
  count_ = requests_.size();
}

void UnansweredRequests::interrupted(std::uint64_t unique) {
  MutexLock lock(mutex_);
  const auto found = requests_.find(unique);
  if (found != requests_.end()) found->second.isInterrupted = true;
}

bool UnansweredRequests::beginAnswer(std::uint64_t unique) {
  if (count_ == 0) return true;
  MutexLock lock(mutex_);
  const auto found = requests_.find(unique);
  if (found == requests_.end()) return true;
  if (isHandedOver_) return false;
  found->second.isBeingAnswered = true;
  return true;
}

void UnansweredRequests::endAnswer(std::uint64_t unique) {
  if (count_ == 0) return;
  MutexLock lock(mutex_);
  requests_.erase(unique);
  count_ = requests_.size();
  answered_.notify_all();
}

std::optional<std::vector<std::string>> UnansweredRequests::handOver() {
  MutexLock lock(mutex_);
  const auto isBeingAnswered = [](const auto& each) { return each.second.isBeingAnswered; };
  while (std::any_of(requests_.begin(), requests_.end(), isBeingAnswered)) lock.wait(answered_);
  std::vector<std::string> bytes;
  for (const auto& [unique, request] : requests_) {
    if (!request.mayRepeat) return std::nullopt;
    bytes.push_back(request.bytes);
    if (request.isInterrupted) bytes.push_back(interruptOf(request.bytes));
  }
  isHandedOver_ = true;
  return bytes;
}

void UnansweredRequests::takeBack() {
  MutexLock lock(mutex_);
  isHandedOver_ = false;
  requests_.clear();
  count_ = 0;
}

}  // namespace kestrune::host
