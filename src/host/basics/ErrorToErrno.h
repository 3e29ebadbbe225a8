// What a program sees of an error: the one place where errors of the extension and of the host become an errno.
//
//   missing item                                  ENOENT
//   server or host not reachable, connection lost EHOSTUNREACH
//   time-out                                      ETIMEDOUT
//   not signed in, HTTP 401 and 403               EACCES
//   no space, HTTP 507                            ENOSPC
//   cancelled                                     ECANCELED
//   errors of the operating system                their own number
//   anything else                                 EIO
//
// Threads: a pure function.
#pragma once

#include "platform/values/NSError.h"

namespace kestrune::host {

/// A positive errno that may be sent to the kernel. ENOSYS is never among them: the kernel takes that as "this
/// operation does not exist" and does not ask again for the life of the mount.
int errnoFor(const platform::NSError& error);

/// Whether what failed so may succeed as soon as anything else does: nobody was reached, or nobody let in.
bool isUnreachable(const platform::NSError& error);

/// Whether the store knows the user and does not let them do just this (HTTP 403): to wait helps as little as to ask for something else.
bool isForbidden(const platform::NSError& error);

/// Whether the store does not know the user (any more), other than that it keeps something from them.
bool isSignedOut(const platform::NSError& error);

}  // namespace kestrune::host
