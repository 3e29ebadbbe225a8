// Random sequences of what programs do in a mounted folder and others at its store, with faults and restarts: a file system in memory
// tells what must be so (ModelFileSystem.h).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

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

// What a run has to try. Some of it comes once in a hundred sequences and depends on threads too.
std::vector<std::string> untried(const ModelCounts& counts) {
  std::vector<std::string> missing;
  for (const char* what :
       {"refusals", "lost answers", "late answers", "minutes waited", "changes by others",
        "stale reads", "sequences with conflicts", "restarts with something unsent",
        "kills with something unsent", "exact comparisons"}) {
    if (counts.of(what) == 0) missing.emplace_back(what);
  }
  return missing;
}

TEST(VolumeModelTest, ProgramsSeeAFileSystemAndNothingIsLost) {
  const int first = number("KESTRUNE_SEED", 1);
  const int sequences = number("KESTRUNE_SEQUENCES", 100);
  const bool triesAll = sequences >= 100;
  const int most = triesAll ? 5 * sequences : sequences;
  ModelCounts counts;
  for (int ran = 0; ran < sequences || (ran < most && !untried(counts).empty()); ++ran) {
    const int seed = first + ran;
    SCOPED_TRACE("KESTRUNE_SEED=" + std::to_string(seed));
    runSequence(static_cast<std::uint64_t>(seed), counts);
    if (HasFailure()) return;
  }
  std::cout << counts.text() << "\n";
  if (triesAll) {
    EXPECT_THAT(untried(counts), testing::IsEmpty()) << "a run without any tries nothing of it";
  }
}

}  // namespace
}  // namespace kestrune::host::test
