#include "platform/values/UTF8.h"

#include <simdjson.h>

namespace kestrune::platform {

bool isValidUTF8(std::string_view bytes) {
  return simdjson::validate_utf8(bytes.data(), bytes.size());
}

}  // namespace kestrune::platform
