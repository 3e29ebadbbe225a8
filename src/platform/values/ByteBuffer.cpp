#include "platform/values/ByteBuffer.h"

#include <algorithm>
#include <utility>

namespace kestrune::platform {

ByteBuffer::ByteBuffer(std::span<char> lent, std::function<void()> letGo)
    : data_(lent.data()), capacity_(lent.size()), letGo_(std::move(letGo)) {}

ByteBuffer::ByteBuffer(ByteBuffer&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)),
      letGo_(std::exchange(other.letGo_, nullptr)) {}

ByteBuffer& ByteBuffer::operator=(ByteBuffer&& other) noexcept {
  if (this == &other) return *this;
  letGo();
  data_ = std::exchange(other.data_, nullptr);
  size_ = std::exchange(other.size_, 0);
  capacity_ = std::exchange(other.capacity_, 0);
  letGo_ = std::exchange(other.letGo_, nullptr);
  return *this;
}

ByteBuffer::~ByteBuffer() { letGo(); }

void ByteBuffer::reserve(std::size_t capacity) {
  if (capacity <= capacity_) return;
  char* const larger = new char[capacity];  // without zeros, which would cost as much as the bytes
  std::copy_n(data_, size_, larger);
  letGo();
  data_ = larger;
  capacity_ = capacity;
}

void ByteBuffer::append(std::string_view bytes) {
  if (bytes.size() > capacity_ - size_) reserve(std::max(size_ + bytes.size(), 2 * capacity_));
  bytes.copy(data_ + size_, bytes.size());
  size_ += bytes.size();
}

void ByteBuffer::letGo() {
  if (const auto lender = std::exchange(letGo_, nullptr)) {
    lender();
  } else {
    delete[] data_;
  }
}

}  // namespace kestrune::platform
