#include "platform/log/JournalSink.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace kestrune::platform {
namespace {

LogRecord record(LogLevel level, std::string text) {
  return {"com.example.app", "network", level, "said %{public}s", {std::move(text)}};
}

const char* const kJournalDirectories[] = {"/run/systemd", "/run/systemd/journal"};
const char* const kJournalSocket = "/run/systemd/journal/socket";

/// Gives this process a /run of its own, which is empty.
bool hideRun() {
  if (::unshare(CLONE_NEWNS) != 0 && ::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  return ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount("none", "/run", "tmpfs", 0, nullptr) == 0;
}

/// A socket in journald's place; -1 if it cannot be made.
int listenAsJournal() {
  for (const char* directory : kJournalDirectories) {
    if (::mkdir(directory, 0755) != 0) return -1;
  }
  const int journal = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::string_view(kJournalSocket).copy(address.sun_path, sizeof address.sun_path - 1);
  if (::bind(journal, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return -1;
  return journal;
}

void writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written <= 0) return;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

std::string readAll(int descriptor) {
  std::string text;
  char buffer[4096];
  for (ssize_t got = 0; (got = ::read(descriptor, buffer, sizeof buffer)) > 0;) {
    text.append(buffer, static_cast<std::size_t>(got));
  }
  return text;
}

/// Runs `body` in a process that has a /run of its own, with or without a journal in it, and
/// returns what the process wrote to standard error, followed by each datagram that the journal
/// got. None where that is not allowed.
std::optional<std::string> outputOf(bool withJournal, const std::function<void()>& body) {
  constexpr int kNotAllowed = 77;
  int ends[2];
  if (::pipe(ends) != 0) return std::nullopt;
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(ends[0]);
    if (!hideRun()) ::_exit(kNotAllowed);
    const int journal = withJournal ? listenAsJournal() : -1;
    if (withJournal && journal < 0) ::_exit(kNotAllowed);
    ::dup2(ends[1], STDERR_FILENO);
    body();
    char datagram[16384];
    for (ssize_t got = 0;
         withJournal && (got = ::recv(journal, datagram, sizeof datagram, MSG_DONTWAIT)) > 0;) {
      writeAll(ends[1], "datagram:\n" + std::string(datagram, static_cast<std::size_t>(got)));
    }
    ::_exit(0);
  }
  ::close(ends[1]);
  std::string output = readAll(ends[0]);
  ::close(ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kNotAllowed) return std::nullopt;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << output;
  return output;
}

TEST(JournalSinkTest, WithoutAJournalLinesGoToStandardError) {
  const auto output = outputOf(false, [] {
    setLogSink(nullptr);
    const Logger log("com.example.app", "network");
    log.write(LogLevel::error, "first %{public}s", "a\nb");
    log.write(LogLevel::standard, "second %s", "secret");
  });
  if (!output) GTEST_SKIP() << "this process may not make a mount namespace";
  const std::string time = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}Z";
  EXPECT_THAT(*output, testing::MatchesRegex(
                           time + " error \\[com.example.app:network\\] first a\\\\nb\n" + time +
                           " default \\[com.example.app:network\\] second <private>\n"));
}

TEST(JournalSinkTest, WithAJournalLinesGoThereWithTheirFields) {
  struct {
    LogLevel level;
    char priority;
  } const cases[] = {
      {LogLevel::debug, '7'}, {LogLevel::info, '6'},  {LogLevel::standard, '5'},
      {LogLevel::error, '3'}, {LogLevel::fault, '2'},
  };
  for (const auto& [level, priority] : cases) {
    const LogLevel written = level;
    const auto output =
        outputOf(true, [written] { journalSink().write(record(written, "a\nb\x1b")); });
    if (!output) GTEST_SKIP() << "this process may not make a mount namespace";
    const std::string program = program_invocation_short_name;
    EXPECT_EQ(*output, "datagram:\nMESSAGE=said a\\nb\\x1b\nPRIORITY=" + std::string(1, priority) +
                           "\nSUBSYSTEM=com.example.app\nCATEGORY=network\nSYSLOG_IDENTIFIER=" +
                           program + "\n");
  }
}

TEST(JournalSinkTest, LinesOfSeveralThreadsDoNotMix) {
  constexpr int kThreads = 4;
  constexpr int kLines = 50;
  const auto output = outputOf(false, [] {
    std::vector<std::thread> writers;
    writers.reserve(kThreads);
    for (int i = 0; i < kThreads; ++i) {
      writers.emplace_back([] {
        for (int line = 0; line < kLines; ++line)
          journalSink().write(record(LogLevel::info, std::string(200, 'x')));
      });
    }
    for (auto& writer : writers) writer.join();
  });
  if (!output) GTEST_SKIP() << "this process may not make a mount namespace";
  std::string_view rest = *output;
  int lines = 0;
  for (; !rest.empty(); ++lines) {
    const std::size_t end = rest.find('\n');
    ASSERT_NE(end, std::string_view::npos);
    const std::string_view line = rest.substr(0, end);
    EXPECT_TRUE(line.ends_with(" info [com.example.app:network] said " + std::string(200, 'x')))
        << line;
    EXPECT_EQ(line.find(" info "), std::string_view("1970-01-01T00:00:00.000Z").size()) << line;
    rest.remove_prefix(end + 1);
  }
  EXPECT_EQ(lines, kThreads * kLines);
}

}  // namespace
}  // namespace kestrune::platform
