// The service's log. Neither the token, nor a storage URL, nor a request's target is ever written
// to it.
//
// Threads: callable from any thread.
#pragma once

#include "platform/log/Log.h"

namespace kestrune::service {

const platform::Logger& serviceLog();

}  // namespace kestrune::service
