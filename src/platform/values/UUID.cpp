#include "platform/values/UUID.h"

#include <algorithm>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

namespace kestrune::platform {

std::string newUUIDString() {
  std::string text = boost::uuids::to_string(boost::uuids::random_generator()());
  // By hand: std::toupper would ask the process's locale.
  std::transform(text.begin(), text.end(), text.begin(), [](char c) {
    return c >= 'a' && c <= 'f' ? static_cast<char>(c - 'a' + 'A') : c;
  });
  return text;
}

}  // namespace kestrune::platform
