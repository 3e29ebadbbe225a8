#include "host/launch/test/LauncherHarness.h"

#include <signal.h>
#include <sys/wait.h>

#include <cerrno>

#include "platform/file_provider/NSFileProviderError.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {

LauncherTest::LauncherTest() = default;

LauncherTest::~LauncherTest() {
  const std::weak_ptr<Launcher> last = launcher;
  launcher = nullptr;
  const bool areGone = support::waitUntil([&] {
    timers->advance(std::chrono::seconds(10));  // what is let go has its time
    siginfo_t info{};
    return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD &&
           last.expired();
  });
  EXPECT_TRUE(areGone) << "a program is left";
}

LaunchOptions LauncherTest::options(std::string mode) {
  LaunchOptions options;
  options.command = [mode = std::move(mode)]() -> ProgramCommand {
    return {{KESTRUNE_BIN_DIR "/kestrune_fragile_program", mode}, {{"GIVEN", "this"}}};
  };
  options.offers.streams = true;
  options.log = std::make_shared<HostLog>();
  options.timers = timers;
  options.reports = reportDirectory;
  return options;
}

Awaited<RunningExtensionPtr> LauncherTest::startGet() {
  Awaited<RunningExtensionPtr> got;
  launcher->get(got.reply());
  return got;
}

RunningExtensionPtr LauncherTest::get() {
  // Not kept in what was awaited: that would be one more who uses it.
  auto got = std::make_shared<std::promise<Answer<RunningExtensionPtr>>>();
  auto answer = got->get_future();
  launcher->get([got](Answer<RunningExtensionPtr> told) { got->set_value(std::move(told)); });
  if (answer.wait_for(boundary::test::kSoon) != std::future_status::ready)
    throw std::runtime_error("no answer came");
  auto told = answer.get();
  if (!told.ok()) told.error()->raise();
  return std::move(told.value());
}

std::string LauncherTest::refusal() {
  const auto answer = startGet().get();
  return answer.ok() ? "" : answer.error()->localizedDescription();
}

Told LauncherTest::ask(const RunningExtensionPtr& running, const std::string& identifier) {
  Told told;
  running->extension()->item(identifier, {}, told.handler());
  return told;
}

platform::NSFileProviderItemPtr LauncherTest::itemOf(const RunningExtensionPtr& running) {
  const auto [item, error] = ask(running, "").wait();
  if (error) error->raise();
  return item;
}

int LauncherTest::pidOf(const RunningExtensionPtr& running) const {
  const int pid = std::stoi(itemOf(running)->itemIdentifier());
  EXPECT_EQ(launcher->status().pid, pid);
  return pid;
}

void LauncherTest::die(const std::string& how) {
  const auto before = launcher->status().deaths;
  const auto [item, error] = ask(get(), how).wait();
  EXPECT_TRUE(error && platform::isInterruption(*error));
  EXPECT_TRUE(support::waitUntil([&] { return launcher->status().deaths == before + 1; }));
}

bool LauncherTest::runs(int pid) { return ::kill(pid, 0) == 0; }

bool LauncherTest::waitUntilGone(int pid) {
  return support::waitUntil([pid] { return !runs(pid); });
}

std::vector<std::filesystem::path> LauncherTest::reports() const {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(reportDirectory))
    if (entry.path().filename().string().starts_with("crash-")) files.push_back(entry.path());
  return files;
}

}  // namespace kestrune::host::test
