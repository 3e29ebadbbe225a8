// Mounts the days:  mount-days FOLDER REPLICA
#include <cstdio>
#include <exception>

#include "days/DaysExtension.h"
#include "host/MountHost.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("usage: mount-days FOLDER REPLICA\n", stderr);
    return 2;
  }
  kestrune::host::HostOptions options;
  options.mountPoint = argv[1];
  options.replicaDirectory = argv[2];
  options.signalFile = options.replicaDirectory / "changed";  // touch it when the days have changed
  options.domainIdentifier = "days";
  options.domainDisplayName = "Days";
  options.mounted = [] {
    std::puts("mounted");
    std::fflush(stdout);
  };
  try {
    kestrune::host::runMountHost(
        options, [](const auto&) { return std::make_shared<days::DaysExtension>(); });
  } catch (const std::exception& error) {
    std::fprintf(stderr, "mount-days: %s\n", error.what());
    return 1;
  }
  return 0;
}
