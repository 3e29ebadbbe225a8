// Random sequences of what people do on both sides, with answers that come late, get lost or say no: whatever happens, nothing
// that anybody wrote is lost without being known, and in the end both sides are the same.
#include <gtest/gtest.h>

#include <cstdlib>

#include "host/tree/test/ModelHost.h"

namespace kestrune::host {
namespace {

int number(const char* variable, int otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? std::atoi(text) : otherwise;
}

void runSequences(ModelStore::Identifiers identifiers) {
  const int first = number("KESTRUNE_SEED", 1);
  const int sequences = number("KESTRUNE_SEQUENCES", 1000);
  for (int seed = first; seed < first + sequences; ++seed) {
    SCOPED_TRACE("KESTRUNE_SEED=" + std::to_string(seed));
    ModelHost host(identifiers, static_cast<std::uint64_t>(seed));
    for (int step = 0; step < 80 && !testing::Test::HasFailure(); ++step) host.step();
    if (!testing::Test::HasFailure()) host.settle();
    if (testing::Test::HasFailure()) return;
  }
}

TEST(TreeModelTest, NothingIsLostAndBothSidesBecomeTheSameWithIdentifiersThatStay) {
  runSequences(ModelStore::Identifiers::numbers);
}

TEST(TreeModelTest, NothingIsLostAndBothSidesBecomeTheSameWithIdentifiersThatArePaths) {
  runSequences(ModelStore::Identifiers::paths);
}

}  // namespace
}  // namespace kestrune::host
