// The platform's progress objects, driven by ours.
//
// Threads: callable from any thread that has an autorelease pool. The platform's object changes, and
// tells its observers, on the threads that move ours.
#pragma once

#import <Foundation/Foundation.h>

#include <memory>

#include "platform/progress/NSProgress.h"

namespace kestrune::macos {

/// An object (autoreleased) that shows the counts of `progress` from now on and hands a cancellation
/// to it. It keeps its last counts when `progress` is gone, and does not keep `progress` alive:
/// cancelling then does nothing. It is no child of the thread's current progress, since the work goes
/// on after the call has returned.
::NSProgress* shown(const std::shared_ptr<platform::NSProgress>& progress);

}  // namespace kestrune::macos
