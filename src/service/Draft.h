// A file that is being written in the staging directory, under a random name. It vanishes with this
// object unless it was handed over (Staging::keep, Staging::place).
//
// Threads: one at a time, except that `write` to parts that do not overlap may run side by side.
// Owns: the file until it is handed over.
// Fails: ServiceError; 507 when the disk is full.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "platform/files/AtomicFile.h"
#include "service/FileDescriptor.h"

namespace kestrune::service {

class Draft {
 public:
  /// `folder` is the folder that holds the open file `name`; it outlives this object. With
  /// `durable`, a sync is expected in the end, and the disk begins early with what was written.
  Draft(int folder, std::string name, FileDescriptor file, platform::Durability durability);
  ~Draft();
  Draft(const Draft&) = delete;
  Draft& operator=(const Draft&) = delete;

  /// Reserves the disk space of [offset, offset + length), where the file system can.
  void reserve(std::uint64_t offset, std::uint64_t length) const;
  /// Writes all of it at `offset`.
  void write(std::uint64_t offset, const char* data, std::size_t length) const;
  /// Gives the file exactly this length.
  void truncate(std::uint64_t length) const;
  /// Copies [from, from + length) of `source`, which may be closed, to `offset`.
  void copyFrom(const Draft& source, std::uint64_t from, std::uint64_t length,
                std::uint64_t offset) const;
  /// Blocks until the contents are on the disk.
  void sync() const;
  /// Gives the descriptor back while the file waits; afterwards only `copyFrom` reads it.
  void close() { file_.reset(); }
  /// The open file.
  /// REQUIRES: not closed.
  const FileDescriptor& file() const { return file_; }

 private:
  friend class Staging;
  int folder_;
  /// Empty once the file was handed over.
  std::string name_;
  FileDescriptor file_;
  platform::Durability durability_;
};

}  // namespace kestrune::service
