// What went wrong between the two programs, as errors for those who wait. One place says what is said.
//
// Threads: any.
#pragma once

#include <kj/exception.h>

#include <string>

#include "platform/values/NSError.h"

namespace kestrune::boundary {

/// The other program is gone, and whether it did what it was asked to nobody knows.
platform::NSErrorPtr interrupted();

/// The other program said what makes no sense.
platform::NSErrorPtr wrongAnswer(const std::string& what);

/// An exception of a call: an interruption where the connection is gone, else an answer that makes no sense.
platform::NSErrorPtr errorFrom(const kj::Exception& exception);

/// The two programs are of different versions; which is newer decides the error's code.
platform::NSErrorPtr versionMismatch(std::uint32_t ours, std::uint32_t theirs);

}  // namespace kestrune::boundary
