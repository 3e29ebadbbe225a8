#include "host/basics/LocalFile.h"

#include <unistd.h>

namespace kestrune::host {

Descriptor::~Descriptor() {
  if (number_ >= 0) ::close(number_);
}

}  // namespace kestrune::host
