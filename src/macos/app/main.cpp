#include <sys/resource.h>

#include <iostream>

#include "macos/app/App.h"

int main(int argc, char** argv) {
  const rlimit none{0, 0};  // the token passes through this process's memory: no core dump
  setrlimit(RLIMIT_CORE, &none);
  return kestrune::macos::runApp(argc, argv, std::cin, std::cout, std::cerr);
}
