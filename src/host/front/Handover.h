// What a host leaves to the program that is executed in its place ("kestrune restart"): everything that the kernel knows of
// the mount and that is not in the replica. It goes through a sealed file in memory, whose number the environment names
// (InheritedMount.h); no contents, tokens or addresses are in it.
//
//     "KESTRUNE"  version: u32  device: i32  mount point: text        the head: the same in every version, so that a program
//                                                                     that cannot read the rest can end the mount in order
//     replica lock: i32  restarts: u64  begun: i64
//     others may enter: flag  extended attributes: flag
//     INIT as the kernel sent it: text  its answer: text
//     passthrough offered: flag  refused none: flag
//     next handle: u64  next node: u64
//     nodes, objects, files, requests, updates: each a count u32 and so many records, in the order of their fields below
//
// Numbers are little-endian; a text is its length, u32, and its bytes; a flag is one byte, 0 or 1. Nothing follows.
//
// A program takes over only what it understands whole: another version, a value that cannot be, or bytes too few or too many are
// refused. The version rises with every change of this format, and of what the two processes must agree on without saying
// so: what the kernel's device is asked for and how its requests are repeated.
//
// Threads: values and plain functions. Fails: NSPOSIXError with a text for the user.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "host/basics/FileTime.h"
#include "host/basics/KernelCache.h"
#include "host/basics/NodeId.h"

namespace kestrune::host {

struct Handover {
  static constexpr std::uint32_t kVersion = 1;

  struct Head {
    std::uint32_t version = kVersion;
    /// The kernel's device, open in this process.
    std::int32_t device = -1;
    /// Absolute.
    std::filesystem::path mountPoint;
  };

  /// What the kernel calls an item, or one version of it.
  struct Node {
    NodeId id = 0;
    InodeNumber item = 0;
    std::uint64_t references = 0;
    /// It no longer stands for its item; what follows is shown of it.
    bool isDetached = false;
    bool isExecutable = false;
    std::int64_t sizeBytes = 0;
    FileTime modified = {};
    FileTime changed = {};
    bool operator==(const Node&) const = default;
  };

  /// The contents behind open files.
  struct Object {
    InodeNumber item = 0;
    /// The item's present ones; else of a version that it has no longer, of which nothing but this is remembered.
    bool isItems = true;
    std::uint64_t number = 0;
    std::string version = {};
    std::int64_t sizeBytes = 0;
    std::int64_t fetchableBytes = 0;
    /// As Ranges::text.
    std::string present = {};
    std::uint64_t edits = 0;
    bool isEdited = false;
    bool operator==(const Object&) const = default;
  };

  struct File {
    /// What the kernel calls it.
    std::uint64_t handle = 0;
    /// Read by the kernel itself, from the local file that it knows by this number; 0: through requests.
    std::int32_t backing = 0;
    NodeId node = 0;
    InodeNumber item = 0;
    /// Its place in `objects`.
    std::uint32_t object = 0;
    bool writes = false;
    bool mayFetch = true;
    bool listedEmpty = false;
    bool operator==(const File&) const = default;
  };

  Head head;
  /// The replica's lock, held in this process.
  std::int32_t replicaLock = -1;
  /// How often the host was replaced, this time included.
  std::uint64_t restarts = 0;
  /// When the old host stopped serving, in nanoseconds of the monotonic clock.
  std::int64_t begun = 0;
  bool othersMayEnter = false;
  bool extendedAttributes = false;
  std::string init;
  std::string initAnswer;
  bool passthroughOffered = false;
  bool passthroughInUse = false;
  std::uint64_t nextHandle = 1;
  NodeId nextNode = 0;
  std::vector<Node> nodes;
  std::vector<Object> objects;
  std::vector<File> files;
  /// Requests that were received and not answered, as the kernel sent them.
  std::vector<std::string> requests;
  /// What the kernel has not been told yet.
  std::vector<CacheUpdate> updates;

  std::string encode() const;
  static Head parseHead(std::string_view bytes);
  static Handover parse(std::string_view bytes);
};

}  // namespace kestrune::host
