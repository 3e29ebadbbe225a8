#include "sandbox/test/Attempts.h"

namespace kestrune::sandbox::test {

std::vector<std::string> Surrounds::asArguments() const {
  return {shared,
          temporary,
          outgoing,
          root,
          abstractSocket,
          std::to_string(port),
          std::to_string(host),
          std::to_string(hostMemory)};
}

Surrounds Surrounds::fromArguments(const std::vector<std::string>& arguments) {
  Surrounds at;
  at.shared = arguments.at(0);
  at.temporary = arguments.at(1);
  at.outgoing = arguments.at(2);
  at.root = arguments.at(3);
  at.abstractSocket = arguments.at(4);
  at.port = std::stoi(arguments.at(5));
  at.host = std::stoi(arguments.at(6));
  at.hostMemory = std::stoull(arguments.at(7));
  return at;
}

}  // namespace kestrune::sandbox::test
