// The program that is confined in the tests: sandbox_probe HOW ATTEMPT WHERE..., HOW being "bubblewrap", "system", "late"
// (after a thread was started, which makes the attempt) or "not". Makes one attempt and prints its errno, 0 for success.

#include <array>
#include <cstdio>
#include <exception>
#include <future>
#include <string>
#include <vector>

#include "sandbox/Confinement.h"
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

void confineProbe(const std::string& program, const test::Surrounds& at, const std::string& how) {
  const std::array kept = {test::kSocketDescriptor};
  closeDescriptorsExcept(kept);
  const SandboxRules rules = rulesFor({at.shared, at.temporary, at.outgoing, program, {}});
  const auto report =
      confine(rules, how == "system" ? Surroundings::system : Surroundings::bubblewrap);
  for (const std::string& text : report.notEnforced)
    std::fprintf(stderr, "not enforced: %s\n", text.c_str());
}

/// Its errno; the confinement's failure is thrown.
int confinedAttempt(const std::string& program, const std::string& how,
                    const test::Attempt& attempt, const test::Surrounds& at) {
  if (how == "not") return attempt.run(at);
  if (how != "late") {
    confineProbe(program, at, how);
    return attempt.run(at);
  }
  std::promise<void> confined;
  auto result = std::async(std::launch::async, [&] {
    confined.get_future().wait();
    return attempt.run(at);
  });
  confineProbe(program, at, "system");
  confined.set_value();
  return result.get();
}

}  // namespace

int main(int count, char** words) {
  const std::vector<std::string> arguments(words + 1, words + count);
  if (arguments.size() < 2) return 2;
  const test::Attempt* attempt = attemptNamed(arguments[1]);
  if (attempt == nullptr) return 2;
  try {
    const auto at = test::Surrounds::fromArguments({arguments.begin() + 2, arguments.end()});
    std::printf("%d\n", confinedAttempt(words[0], arguments[0], *attempt, at));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 3;
  }
  return 0;
}
