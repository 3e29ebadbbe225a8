// The program that is confined in the tests: sandbox_probe HOW ATTEMPT WHERE..., HOW being "bubblewrap" or "system" (what
// it was started in), "late", "landlock", "filter" or "not". Makes one attempt and prints its errno, 0 for success.

#include <sys/prctl.h>

#include <array>
#include <cstdio>
#include <exception>
#include <future>
#include <string>
#include <vector>

#include "sandbox/Confinement.h"
#include "sandbox/Landlock.h"
#include "sandbox/SystemCallFilter.h"
#include "sandbox/test/Attempts.h"

namespace {

using namespace kestrune::sandbox;

const test::Attempt* attemptNamed(const std::string& name) {
  for (const auto* list : {&test::forbiddenWithFiles(), &test::forbiddenWithOthers(),
                           &test::forbiddenWithKernel(), &test::needed(), &test::crashes()}) {
    for (const test::Attempt& attempt : *list) {
      if (name == attempt.name) return &attempt;
    }
  }
  return nullptr;
}

SandboxRules rulesAt(const test::Surrounds& at, const std::string& program) {
  return rulesFor({at.shared, at.temporary, at.outgoing, program, {}});
}

void confineProbe(const SandboxRules& rules, Surroundings surroundings) {
  const std::array kept = {test::kSocketDescriptor};
  closeDescriptorsExcept(kept);
  for (const std::string& text : confine(rules, surroundings).notEnforced) {
    std::fprintf(stderr, "not enforced: %s\n", text.c_str());
  }
}

/// The attempt is made by a thread that runs before the confinement begins.
int lateAttempt(const SandboxRules& rules, const test::Attempt& attempt,
                const test::Surrounds& at) {
  std::promise<void> confined;
  auto result = std::async(std::launch::async, [&] {
    confined.get_future().wait();
    return attempt.run(at);
  });
  confineProbe(rules, Surroundings::system);
  confined.set_value();
  return result.get();
}

int confinedAttempt(const std::string& how, const SandboxRules& rules, const test::Attempt& attempt,
                    const test::Surrounds& at) {
  if (how == "late") return lateAttempt(rules, attempt, at);
  if (how == "bubblewrap") confineProbe(rules, Surroundings::bubblewrap);
  if (how == "system") confineProbe(rules, Surroundings::system);
  if (how == "landlock" || how == "filter") ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
  if (how == "landlock") applyLandlock(rules);
  if (how == "filter") applySystemCallFilter();
  return attempt.run(at);
}

}  // namespace

int main(int count, char** words) {
  const std::vector<std::string> arguments(words + 1, words + count);
  if (arguments.size() < 2) return 2;
  const test::Attempt* attempt = attemptNamed(arguments[1]);
  if (attempt == nullptr) return 2;
  try {
    const auto at = test::Surrounds::fromArguments({arguments.begin() + 2, arguments.end()});
    std::printf("%d\n", confinedAttempt(arguments[0], rulesAt(at, words[0]), *attempt, at));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 3;
  }
  return 0;
}
