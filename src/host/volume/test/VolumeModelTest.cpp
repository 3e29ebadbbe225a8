// Random sequences of what programs do in a mounted folder and others at its store, with faults and restarts: a file system in memory
// tells what must be so (ModelFileSystem.h).
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>

#include "host/volume/test/ModelFileSystem.h"
#include "tests/support/CapturingLogSink.h"

namespace kestrune::host::test {
namespace {

int number(const char* variable, int otherwise) {
  const char* text = std::getenv(variable);
  return text != nullptr ? std::atoi(text) : otherwise;
}

void runSequence(std::uint64_t seed, ModelCounts& counts) {
  const support::CapturingLogSink log;
  ModelFileSystem model(seed, counts);
  const std::size_t steps = 30 + seed % 51;
  try {
    for (std::size_t step = 0; step < steps && !testing::Test::HasFailure(); ++step) {
      model.step();
      if (step == steps / 2 && seed % 3 == 0) model.settle();
    }
    if (!testing::Test::HasFailure()) model.settle();
  } catch (const std::exception& error) {
    ADD_FAILURE() << error.what();
  }
  if (!testing::Test::HasFailure()) return;
  for (const auto& line : model.story()) std::cerr << "  " << line << "\n";
  for (const auto& line : log.messages()) std::cerr << "  log: " << line << "\n";
}

TEST(VolumeModelTest, ProgramsSeeAFileSystemAndNothingIsLost) {
  const int first = number("KESTRUNE_SEED", 1);
  const int sequences = number("KESTRUNE_SEQUENCES", 100);
  ModelCounts counts;
  for (int seed = first; seed < first + sequences; ++seed) {
    SCOPED_TRACE("KESTRUNE_SEED=" + std::to_string(seed));
    runSequence(static_cast<std::uint64_t>(seed), counts);
    if (HasFailure()) return;
  }
  std::cout << counts.text() << "\n";
  if (sequences < 100) return;
  for (const char* what :
       {"refusals", "lost answers", "late answers", "minutes waited", "changes by others",
        "stale reads", "sequences with conflicts", "restarts with something unsent",
        "kills with something unsent", "exact comparisons"}) {
    EXPECT_GE(counts.of(what), 1) << what << ": a run without any tries nothing of it";
  }
}

}  // namespace
}  // namespace kestrune::host::test
