#include "config/Loggers.h"

namespace kestrune {

namespace {

const platform::Logger& category(const char* name) {
  // Never destroyed: tasks log until the process ends.
  return *new platform::Logger("com.orvanta.kestrune.fileprovider", name);
}

}  // namespace

const platform::Logger& fpLog() {
  static const platform::Logger& log = category("extension");
  return log;
}

const platform::Logger& enumLog() {
  static const platform::Logger& log = category("enumerator");
  return log;
}

const platform::Logger& mpLog() {
  static const platform::Logger& log = category("multipart");
  return log;
}

}  // namespace kestrune
