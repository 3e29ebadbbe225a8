// Where this room's lines go. Callable from any thread.
#pragma once

#include "platform/log/Log.h"

namespace kestrune {

inline const platform::Logger& eventsLog() {
  static const platform::Logger log("com.orvanta.kestrune.companion", "events");
  return log;
}

}  // namespace kestrune
