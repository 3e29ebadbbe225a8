// Memory that bytes are gathered in and that goes from hand to hand without being copied: its own, or lent by somebody who wants
// the bytes there.
//
// Threads: a value, one at a time.
#pragma once

#include <cstddef>
#include <functional>
#include <span>
#include <string_view>

namespace kestrune::platform {

class ByteBuffer {
 public:
  ByteBuffer() = default;
  /// The memory of somebody else, without contents. `letGo` is called once, by whoever lets go of it, on any thread; it must not throw.
  ByteBuffer(std::span<char> lent, std::function<void()> letGo);
  ByteBuffer(ByteBuffer&& other) noexcept;
  ByteBuffer& operator=(ByteBuffer&& other) noexcept;
  ByteBuffer(const ByteBuffer&) = delete;
  ByteBuffer& operator=(const ByteBuffer&) = delete;
  ~ByteBuffer();

  std::string_view bytes() const { return {data_, size_}; }
  operator std::string_view() const { return bytes(); }  // NOLINT(google-explicit-constructor)
  std::size_t size() const { return size_; }
  std::size_t capacity() const { return capacity_; }
  bool empty() const { return size_ == 0; }

  /// Room for `capacity` bytes in all. Where there is less the contents move to memory of its own, and what was lent is let go.
  void reserve(std::size_t capacity);
  /// Makes room where there is too little.
  void append(std::string_view bytes);
  void clear() { size_ = 0; }

  friend bool operator==(const ByteBuffer& buffer, std::string_view bytes) {
    return buffer.bytes() == bytes;
  }

 private:
  void letGo();

  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
  std::function<void()> letGo_;  // none: the memory is its own
};

}  // namespace kestrune::platform
