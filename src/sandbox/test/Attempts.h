// What the confined program tries: everything that must be refused, and everything that the extension needs. The test names
// an attempt, the probe (SandboxProbe.cpp) makes it from inside and tells the errno.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace kestrune::sandbox::test {

/// Where things are, as the test has laid them out (Stage.h).
struct Surrounds {
  std::filesystem::path shared;
  std::filesystem::path temporary;
  std::filesystem::path outgoing;
  /// Holds home/ with a key, replica/contents/, control.sock and outside/.
  std::filesystem::path root;
  std::string abstractSocket;
  int port = 0;  // 127.0.0.1, somebody listens
  pid_t host = 0;
  std::uintptr_t hostMemory = 0;  // the address of something in the host

  std::vector<std::string> asArguments() const;
  static Surrounds fromArguments(const std::vector<std::string>& arguments);
};

struct Attempt {
  const char* name;
  /// Returns 0 if it succeeded, else the errno.
  int (*run)(const Surrounds&);
};

constexpr int kSocketDescriptor = 3;   // connected to the test, which has sent "ping"
constexpr int kForeignDescriptor = 9;  // open on a secret, by mistake
/// In the environment with which the host itself was started.
constexpr const char* kHostVariable = "PATH";

/// Of files and directories.
const std::vector<Attempt>& forbiddenWithFiles();
/// Of other processes, and of sockets.
const std::vector<Attempt>& forbiddenWithOthers();
const std::vector<Attempt>& forbiddenWithKernel();
const std::vector<Attempt>& needed();
/// End the program by a signal.
const std::vector<Attempt>& crashes();

}  // namespace kestrune::sandbox::test
