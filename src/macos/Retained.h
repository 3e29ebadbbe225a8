// Ownership of the platform's objects and blocks, for code whose memory is managed by hand.
//
// Threads: like std::shared_ptr: one owner at a time may be used by one thread, several owners of
// one object by several.
#pragma once

#import <Foundation/Foundation.h>

#include <Block.h>

#include <utility>

namespace kestrune::macos {

/// Holds one reference to an object, or nil.
template <class Object>
class Retained {
 public:
  Retained() = default;
  /// Takes a reference of its own.
  explicit Retained(Object object) : object_([object retain]) {}
  Retained(const Retained& other) : object_([other.object_ retain]) {}
  Retained(Retained&& other) noexcept : object_(std::exchange(other.object_, nil)) {}
  Retained& operator=(Retained other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Retained() { releaseInPool(); }

  /// Takes over the reference that `alloc`, `new` or `copy` gave.
  static Retained adopt(Object object) {
    Retained adopted;
    adopted.object_ = object;
    return adopted;
  }

  Object get() const { return object_; }

 private:
  // The last owner may go on a thread that has no pool, and what goes with the object may need one.
  void releaseInPool() const {
    if (object_ == nil) return;
    @autoreleasepool {
      [object_ release];
    }
  }

  Object object_ = nil;
};

/// Holds one reference to a block's copy on the heap. Blocks are no objects to every Objective-C
/// runtime, so they are copied and released by the functions of the blocks runtime.
template <class BlockType>
class RetainedBlock {
 public:
  explicit RetainedBlock(BlockType block) : block_(Block_copy(block)) {}
  RetainedBlock(const RetainedBlock& other) : block_(Block_copy(other.block_)) {}
  RetainedBlock(RetainedBlock&& other) noexcept : block_(std::exchange(other.block_, nullptr)) {}
  RetainedBlock& operator=(RetainedBlock other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~RetainedBlock() {
    if (block_ == nullptr) return;
    @autoreleasepool {
      Block_release(block_);
    }
  }

  BlockType get() const { return block_; }

 private:
  BlockType block_ = nullptr;
};

}  // namespace kestrune::macos
