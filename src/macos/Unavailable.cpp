#include "macos/Unavailable.h"

#include <cstdio>
#include <cstdlib>

namespace kestrune::macos {

void endAtUnimplementedInitializer(const char* className) {
  std::fprintf(stderr, "Fatal error: Use of unimplemented initializer 'init()' for class '%s'\n",
               className);
  std::abort();
}

}  // namespace kestrune::macos
