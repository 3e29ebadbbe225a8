// Hands bytes of a local file to the kernel without copying them into memory of this process: header and bytes are gathered in a
// pipe, where the bytes are no more than references to the page cache, and go to the device as one message.
//
// Threads: belongs to one thread.
// Owns: its pipe, which is made when it is first needed.
#pragma once

#include <sys/types.h>
#include <sys/uio.h>

#include <cstddef>
#include <memory>
#include <optional>

#include "host/basics/LocalFile.h"

namespace kestrune::host {

class AnswerPipe {
 public:
  AnswerPipe() = default;
  AnswerPipe(const AnswerPipe&) = delete;
  AnswerPipe& operator=(const AnswerPipe&) = delete;

  /// What writev(2) to `device` would answer for `header` and the `length` bytes of `file` from `offset` on. None: it
  /// cannot be done in this way (no pipe of that size, the file is shorter, the device wants none), and nothing was sent.
  std::optional<ssize_t> send(int device, const iovec& header, int file, off_t offset,
                              std::size_t length);

 private:
  bool makeRoom(std::size_t bytes);
  bool gather(const iovec& header, int file, off_t offset, std::size_t length);

  std::unique_ptr<Descriptor> out_;
  std::unique_ptr<Descriptor> in_;
  std::size_t room_ = 0;
  bool isRefused_ = false;
};

}  // namespace kestrune::host
