#include "service/ServiceLog.h"

namespace kestrune::service {

const platform::Logger& serviceLog() {
  static const platform::Logger logger("com.orvanta.kestrune.service", "service");
  return logger;
}

}  // namespace kestrune::service
