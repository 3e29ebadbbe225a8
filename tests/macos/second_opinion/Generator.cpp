#include "Generator.h"

#include <cstdlib>

namespace kestrune::second_opinion {

std::uint64_t seedFromEnvironment() {
  constexpr std::uint64_t kUsualSeed = 20'240'610;
  const char* const given = std::getenv("KESTRUNE_SEED");
  return given == nullptr ? kUsualSeed : std::strtoull(given, nullptr, 10);
}

}  // namespace kestrune::second_opinion
