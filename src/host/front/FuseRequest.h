// What the requests of all kinds have in common: whom they ask, how the ones that may wait are registered, and how values
// become the kernel's structures. Only for the front's own sources.
#pragma once

#define FUSE_USE_VERSION 312
#include <fuse_lowlevel.h>
#include <sys/stat.h>

#include <cstddef>
#include <string>
#include <vector>

#include "host/front/FuseFront.h"

namespace kestrune::host {

/// The host tells the kernel of every change, so what the kernel knows holds until then.
inline constexpr double kValidSeconds = 86400;
/// How much the kernel may ask for or bring in one request; also the pages that libfuse announces for one.
inline constexpr std::size_t kLargestTransfer = 1U << 20U;
/// Of a read less: a pipe, which is 1 MiB at most for who has no privileges, holds it (AnswerPipe.h).
inline constexpr std::size_t kLargestRead = 512U << 10U;

/// What programs are told to read and write at once. The kernel makes large requests of it by itself; and a copy in larger pieces
/// takes memory for its target in blocks that are rarely at hand, which cost six times the time on a virtual machine.
inline constexpr blksize_t kPreferredPiece = 128 << 10;

void addNameOperations(fuse_lowlevel_ops& operations);
void addFolderOperations(fuse_lowlevel_ops& operations);
void addFileOperations(fuse_lowlevel_ops& operations);
void addAttributeOperations(fuse_lowlevel_ops& operations);
void addExtendedAttributeOperations(fuse_lowlevel_ops& operations);

FuseFront& frontOf(fuse_req_t request);
Dispatcher& dispatcherOf(fuse_req_t request);

/// What a request does, which decides for how long a signal leaves it alone.
enum class Effect {
  looks,
  changes,
};

/// Registers a request that may wait. Null: it has been answered.
OpenCalls::CallPtr beginCall(fuse_req_t request, Effect effect);

void replyError(fuse_req_t request, const platform::NSError& error);

/// What the kernel must forget if a change comes about when its call has been answered already.
using Consequences = std::vector<CacheUpdate>;
Consequences nameChanged(NodeId folder, const std::string& name);
Consequences bytesChanged(NodeId node);

/// Answers a call that has no value.
Reply<Done> replyingDone(fuse_req_t request, OpenCalls::CallPtr call, Consequences ifLate = {});

struct stat statusOf(const Attributes& attributes);
fuse_entry_param parametersOf(const Entry& entry);

/// Answers with an entry. A reference that does not reach the kernel is given back.
void replyEntry(FuseFront& front, OpenCalls::Call& call, fuse_req_t request,
                const Answer<Entry>& answer, const Consequences& ifLate = {});

/// False if no file can have this name; it has been answered then.
bool isNamePossible(fuse_req_t request, const char* name);

OpenHandle handleOf(fuse_req_t request, const fuse_file_info& info);

/// What has become of a new file that was created and opened.
void createFile(fuse_req_t request, fuse_ino_t folder, const char* name, mode_t mode,
                fuse_file_info* info);

}  // namespace kestrune::host
