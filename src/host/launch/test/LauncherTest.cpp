#include "host/launch/Launcher.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "host/launch/test/LauncherHarness.h"
#include "platform/file_provider/NSFileProviderError.h"
#include "tests/support/Waiting.h"

namespace kestrune::host::test {
namespace {

using platform::isInterruption;
using platform::NSErrorPtr;
using platform::NSFileProviderError;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;
using support::waitUntil;

TEST_F(LauncherTest, NothingIsStartedBeforeTheFirstCall) {
  launch();
  EXPECT_EQ(launcher->status().pid, 0);
  EXPECT_EQ(launcher->status().starts, 0U);
  const auto running = get();
  EXPECT_TRUE(runs(pidOf(running)));
  EXPECT_FALSE(running->isGone());
  const ExtensionStatus status = launcher->status();
  EXPECT_EQ(status.starts, 1U);
  EXPECT_EQ(status.deaths, 0U);
  EXPECT_EQ(status.lastDeath, "");
  EXPECT_EQ(status.refusal, "");
  EXPECT_EQ(status.confinement.value().notEnforced, std::vector<std::string>{"no walls"});
}

TEST_F(LauncherTest, ManyCallersAtOnceStartOne) {
  launch();
  constexpr std::size_t kCallers = 16;
  std::vector<Awaited<RunningExtensionPtr>> got(kCallers);
  std::vector<std::thread> callers;
  for (auto& one : got) callers.emplace_back([&] { launcher->get(one.reply()); });
  for (auto& caller : callers) caller.join();
  for (const auto& one : got) {
    const auto answer = one.get();
    ASSERT_TRUE(answer.ok());
    EXPECT_EQ(pidOf(answer.value()), launcher->status().pid);
    EXPECT_EQ(one.count(), 1);
  }
  EXPECT_EQ(launcher->status().starts, 1U);
}

TEST_F(LauncherTest, OneThatIsNotNeededEndsAfterAWhileAndIsStartedAgain) {
  launch();
  const int first = pidOf(get());
  ASSERT_TRUE(timers->waitForTimer(minutes(1)));
  timers->advance(seconds(59));
  EXPECT_EQ(launcher->status().pid, first);
  EXPECT_TRUE(runs(first));
  timers->advance(seconds(1));
  EXPECT_EQ(launcher->status().pid, 0);
  EXPECT_TRUE(waitUntilGone(first));
  EXPECT_EQ(launcher->status().deaths, 0U);
  EXPECT_TRUE(reports().empty());
  const auto running = get();
  EXPECT_NE(pidOf(running), first);
  EXPECT_EQ(launcher->status().starts, 2U);
}

TEST_F(LauncherTest, OneWithAnOpenCallDoesNotEnd) {
  launch();
  pidOf(get());
  ASSERT_TRUE(timers->waitForTimer(minutes(1)));  // for an earlier call, which has ended
  auto running = get();
  auto held = ask(running, "hold");
  const int pid = pidOf(running);
  timers->advance(minutes(10));
  EXPECT_EQ(launcher->status().pid, pid);
  EXPECT_TRUE(runs(pid));
  EXPECT_FALSE(held.wasCalled());
  running = nullptr;
  ASSERT_TRUE(timers->waitForTimer(minutes(1)));
  timers->advance(minutes(1));
  EXPECT_TRUE(waitUntilGone(pid));
  held.wait();
}

TEST_F(LauncherTest, EachCallPutsTheEndOff) {
  launch();
  const int pid = pidOf(get());
  ASSERT_TRUE(timers->waitForTimer(seconds(60)));
  timers->advance(seconds(40));
  get();
  timers->advance(seconds(40));  // the timer goes off and is set anew
  EXPECT_EQ(launcher->status().pid, pid);
  ASSERT_TRUE(timers->waitForTimer(seconds(20)));
  timers->advance(seconds(19));
  EXPECT_EQ(launcher->status().pid, pid);
  timers->advance(seconds(1));
  EXPECT_EQ(launcher->status().pid, 0);
}

TEST_F(LauncherTest, ADeathIsCountedAndReportedAndAnotherOneIsStarted) {
  launch();
  const int first = pidOf(get());
  die("abort the-secret-name");
  const ExtensionStatus status = launcher->status();
  EXPECT_EQ(status.lastDeath, "signal 6 (Aborted)");
  EXPECT_EQ(status.pid, 0);
  ASSERT_TRUE(waitUntil([&] { return reports().size() == 1; }));
  const std::string report = support::contentsOf(reports().front());
  EXPECT_NE(report.find("the extension ended by signal 6 (Aborted)\n"
                        "signal: ABRT\nfragile_program(+0x1234)\n"),
            std::string::npos)
      << report;
  EXPECT_EQ(report.find("secret"), std::string::npos);
  struct stat file {};
  ASSERT_EQ(::stat(reports().front().c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777U, 0600U);
  ASSERT_EQ(::stat(reportDirectory.c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 07777U, 0700U);
  const auto running = get();
  EXPECT_NE(pidOf(running), first);
  EXPECT_EQ(launcher->status().starts, 2U);
  EXPECT_EQ(launcher->status().deaths, 1U);
}

TEST_F(LauncherTest, OneThatEndsByItselfDied) {
  launch();
  die("exit");
  EXPECT_EQ(launcher->status().lastDeath, "exit code 3");
}

TEST_F(LauncherTest, TooManyStartsAMinuteAreRefused) {
  auto limited = options();
  limited.mostStarts = 3;
  launch(std::move(limited));
  for (int start = 0; start < 3; ++start) {
    die();
    timers->advance(seconds(10));
  }
  const auto answer = startGet().get();
  ASSERT_FALSE(answer.ok());
  EXPECT_EQ(answer.error()->domain(), platform::kNSFileProviderErrorDomain);
  EXPECT_EQ(answer.error()->code(), NSFileProviderError::providerDomainTemporarilyUnavailable);
  const std::string why = answer.error()->localizedDescription();
  EXPECT_EQ(why,
            "the extension was started 3 times within a minute and ended the last time by signal 9 "
            "(Killed); it is started again when that minute is over");
  EXPECT_EQ(launcher->status().refusal, why);
  EXPECT_EQ(launcher->status().starts, 3U);
  timers->advance(seconds(30));  // the first of them is a minute ago
  EXPECT_NE(refusal(), "");
  timers->advance(milliseconds(1));
  const auto running = get();
  EXPECT_EQ(launcher->status().refusal, "");
  EXPECT_EQ(launcher->status().starts, 4U);
}

TEST_F(LauncherTest, OneThatCannotBeStartedIsNamedEachTime) {
  auto missing = options();
  missing.mostStarts = 2;
  missing.command = []() -> ProgramCommand { return {{"/nowhere/extension"}, {}}; };
  launch(std::move(missing));
  for (int start = 0; start < 2; ++start) {
    EXPECT_NE(refusal().find("/nowhere/extension"), std::string::npos);
    EXPECT_NE(launcher->status().refusal.find("/nowhere/extension"), std::string::npos);
  }
  EXPECT_EQ(launcher->status().deaths, 0U);
  const std::string why = refusal();
  EXPECT_TRUE(why.starts_with("the extension was started 2 times within a minute; ")) << why;
}

TEST_F(LauncherTest, WhyThereIsNoCommandIsTheAnswer) {
  auto without = options();
  without.command = []() -> ProgramCommand {
    throw platform::NSPOSIXError(ENOENT, "find the shared directory");
  };
  launch(std::move(without));
  EXPECT_EQ(refusal(), "find the shared directory: No such file or directory");
}

TEST_F(LauncherTest, OneThatNeverAnswersIsKilled) {
  launch("silent");
  const auto got = startGet();
  ASSERT_TRUE(timers->waitForTimer(seconds(10)));
  timers->advance(milliseconds(9999));
  EXPECT_FALSE(support::waitUntil([&] { return got.ready(); }, milliseconds(50)));
  timers->advance(milliseconds(1));
  const auto answer = got.get();
  ASSERT_FALSE(answer.ok());
  EXPECT_EQ(answer.error()->localizedDescription(),
            "the extension's program did not answer, and was killed");
  EXPECT_TRUE(waitUntil([&] { return launcher->status().deaths == 1; }));
  EXPECT_EQ(launcher->status().starts, 1U);  // nobody waits as long again
  EXPECT_EQ(launcher->status().lastDeath, "signal 9 (Killed)");
  EXPECT_EQ(launcher->status().pid, 0);
}

TEST_F(LauncherTest, OneThatWasGreetedIsNotKilled) {
  launch();
  const auto running = get();
  const int pid = pidOf(running);
  timers->advance(seconds(11));
  EXPECT_EQ(pidOf(running), pid);
}

TEST_F(LauncherTest, OneThatCrashesAtTheStartIsTriedAFewTimes) {
  launch("crash");
  const auto answer = startGet().get();
  ASSERT_FALSE(answer.ok());
  EXPECT_EQ(answer.error()->localizedDescription(),
            "the extension's program ended before it answered");
  EXPECT_TRUE(waitUntil([&] { return launcher->status().deaths == 5; }));
  EXPECT_EQ(launcher->status().lastDeath, "signal 9 (Killed)");
  EXPECT_TRUE(waitUntil([&] { return !reports().empty(); }));
  EXPECT_FALSE(startGet().get().ok());
  EXPECT_EQ(launcher->status().starts, 10U);
}

TEST_F(LauncherTest, OneThatExitsAtOnceDied) {
  launch("exit");
  EXPECT_FALSE(startGet().get().ok());
  EXPECT_TRUE(waitUntil([&] { return launcher->status().lastDeath == "exit code 3"; }));
}

TEST_F(LauncherTest, OneOfAnotherVersionIsRefused) {
  launch("other-version");
  const auto answer = startGet().get();
  ASSERT_FALSE(answer.ok());
  EXPECT_EQ(answer.error()->code(), NSFileProviderError::newerExtensionVersionFound);
  EXPECT_NE(answer.error()->localizedDescription().find("the host is older"), std::string::npos);
  EXPECT_EQ(launcher->status().refusal, answer.error()->localizedDescription());
  launcher->end();
  EXPECT_EQ(launcher->status().deaths, 0U);
  EXPECT_TRUE(reports().empty());
}

TEST_F(LauncherTest, OneThatOffersLessIsRefused) {
  launch("less");
  EXPECT_EQ(refusal(), "the extension's program offers less than this host needs of it");
  EXPECT_EQ(launcher->status().deaths, 0U);
  for (const boundary::Offers& offers : {boundary::Offers{.partialContents = true},
                                         boundary::Offers{.streams = true, .actions = true}}) {
    auto more = options();
    more.offers = offers;
    launch(std::move(more));
    EXPECT_EQ(refusal(), "the extension's program offers less than this host needs of it");
  }
  auto content = options("less");
  content.offers = {};
  launch(std::move(content));
  EXPECT_EQ(refusal(), "");
}

TEST_F(LauncherTest, OneThatDoesNotEndIsKilled) {
  launch("hang");
  const int pid = pidOf(get());
  ASSERT_TRUE(timers->waitForTimer(minutes(1)));
  timers->advance(minutes(1));
  ASSERT_TRUE(timers->waitForTimer(seconds(10)));
  EXPECT_TRUE(runs(pid));
  timers->advance(seconds(10));
  EXPECT_FALSE(runs(pid));
  EXPECT_EQ(launcher->status().deaths, 0U);
}

TEST_F(LauncherTest, TheEndFailsWhatIsOpenAndLeavesNoProgram) {
  launch();
  const auto running = get();
  auto held = ask(running, "hold");
  const int pid = pidOf(running);
  launcher->end();
  EXPECT_FALSE(runs(pid));
  const auto [item, error] = held.wait();
  EXPECT_TRUE(error && isInterruption(*error));
  EXPECT_TRUE(running->isGone());
  EXPECT_EQ(launcher->status().pid, 0);
  EXPECT_EQ(launcher->status().deaths, 0U);
  EXPECT_EQ(refusal(), "the host ends");
  launcher->end();
}

TEST_F(LauncherTest, TheEndKillsOneThatDoesNotEnd) {
  auto hasty = options("hang");
  hasty.patience = milliseconds(50);
  launch(std::move(hasty));
  const auto running = get();  // somebody still has it
  const int pid = pidOf(running);
  launcher->end();
  EXPECT_TRUE(waitUntilGone(pid));
  EXPECT_EQ(launcher->status().deaths, 0U);
}

TEST_F(LauncherTest, TheEndComesBeforeAnythingIsStarted) {
  launch();
  launcher->end();
  EXPECT_EQ(refusal(), "the host ends");
  EXPECT_EQ(launcher->status().starts, 0U);
}

TEST_F(LauncherTest, TheEndComesWhileOneIsStarted) {
  launch("silent");
  const auto got = startGet();
  ASSERT_TRUE(timers->waitForTimer(seconds(10)));
  launcher->end();
  const auto answer = got.get();  // in no time
  ASSERT_FALSE(answer.ok());
  EXPECT_EQ(answer.error()->localizedDescription(), "the host ends");
  EXPECT_EQ(launcher->status().deaths, 0U);
}

// Again and again, at whatever moment of the start.
TEST_F(LauncherTest, TheEndComesAtAnyMoment) {
  for (int run = 0; run < 20; ++run) {
    launch();
    const auto got = startGet();
    std::this_thread::sleep_for(milliseconds(run));
    launcher->end();
    const auto answer = got.get();
    if (!answer.ok()) {
      EXPECT_EQ(answer.error()->localizedDescription(), "the host ends");
    }
    EXPECT_EQ(launcher->status().pid, 0);
    EXPECT_EQ(launcher->status().deaths, 0U);
    EXPECT_EQ(refusal(), "the host ends");
  }
}

TEST_F(LauncherTest, ALauncherIsLetGoWhileOneIsStarted) {
  launch();
  const auto got = startGet();
  const std::weak_ptr<Launcher> weak = launcher;
  launcher = nullptr;
  EXPECT_TRUE(got.get().ok());
  EXPECT_TRUE(waitUntil([&] { return weak.expired(); }));
}

TEST_F(LauncherTest, WhoUsesOneMayOutliveTheLauncher) {
  launch();
  const auto running = get();
  const int pid = pidOf(running);
  launcher = nullptr;  // the last one who holds it, or soon
  EXPECT_TRUE(waitUntilGone(pid));
  const auto [item, error] = ask(running, "").wait();
  EXPECT_TRUE(error && isInterruption(*error));
}

TEST_F(LauncherTest, AProgramHasNothingOfItsHost) {
  const int open = ::open("/dev/null", O_RDONLY);  // NOLINT(android-cloexec-open): what is tested
  ::setenv("SECRET", "token", 1);                  // NOLINT(concurrency-mt-unsafe)
  ::signal(SIGHUP, SIG_IGN);                       // NOLINT(cert-err33-c)
  sigset_t blocked;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);  // of the threads that are made from now on
  launch();
  EXPECT_EQ(itemOf(get())->filename(),
            "descriptors: 0 1 2 3 4\n"
            "input: empty\n"
            "signals:\n"
            "directory: /\n"
            "group: own\n"
            "environment: GIVEN=this");
  ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
  ::signal(SIGHUP, SIG_DFL);  // NOLINT(cert-err33-c)
  ::unsetenv("SECRET");       // NOLINT(concurrency-mt-unsafe)
  ::close(open);
}

TEST_F(LauncherTest, AChildThatWasLeftBehindIsTakenNoteOf) {
  const int child = ::fork();
  if (child == 0) ::_exit(0);
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(childProcesses(::getpid()), std::vector<int>{child});
  auto successor = options();
  successor.leftBehind = childProcesses(::getpid());
  launch(std::move(successor));
  EXPECT_EQ(refusal(), "");
  EXPECT_EQ(::waitpid(child, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
}  // namespace kestrune::host::test
