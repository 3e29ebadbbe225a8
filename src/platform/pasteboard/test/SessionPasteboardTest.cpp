// The session's clipboard in front of programs of the test's own, which write down what they get.
#include "platform/pasteboard/SessionPasteboard.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>

#include "platform/values/NSError.h"
#include "tests/support/ScopedEnvironment.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::platform {
namespace {

namespace fs = std::filesystem;
using std::chrono::milliseconds;
using support::contentsOf;
using support::ScopedEnvironment;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* kWlCopy = "--type\ntext/plain;charset=utf-8\n";
constexpr const char* kXclip = "-selection\nclipboard\n-in\n";

class SessionPasteboardTest : public testing::Test {
 protected:
  SessionPasteboardTest() : path_("PATH", programs().string() + ":/usr/bin:/bin") {
    fs::create_directories(programs());
    inSession(std::nullopt, std::nullopt);
  }

  fs::path programs() const { return directory_.path() / "bin"; }
  fs::path written(const std::string& name) const { return directory_.path() / name; }

  /// What WAYLAND_DISPLAY and DISPLAY say.
  void inSession(const std::optional<std::string>& wayland, const std::optional<std::string>& x11) {
    wayland_.reset();
    x11_.reset();
    wayland_ = std::make_unique<ScopedEnvironment>("WAYLAND_DISPLAY", wayland);
    x11_ = std::make_unique<ScopedEnvironment>("DISPLAY", x11);
  }
  void install(const std::string& program, const std::string& script,
               const std::string& interpreter = "/bin/sh") const {
    const fs::path file = directory_.write("bin/" + program, "#!" + interpreter + "\n" + script);
    fs::permissions(file, fs::perms::owner_all);
  }
  /// A program that writes down its arguments, one a line, its input and its environment.
  void installRecorder(const std::string& program, int status = 0) const {
    const std::string place = directory_.path().string() + "/";
    install(program, "[ $# -eq 0 ] || printf '%s\\n' \"$@\" >" + place + "arguments\n" + "cat >" +
                         place + "input\n" + "env >" + place + "environment\n" + "exit " +
                         std::to_string(status) + "\n");
  }
  static std::string failure(const std::string& text = "text",
                             milliseconds patience = SessionPasteboard::kPatience) {
    SessionPasteboard pasteboard(patience);
    try {
      pasteboard.replaceContents(text);
    } catch (const NSCocoaError& error) {
      EXPECT_EQ(error.code(), NSCocoaError::featureUnsupported);
      return error.localizedDescription();
    }
    return "no failure";
  }
  void expectTaken(const std::string& text) const {
    SessionPasteboard().replaceContents(text);
    EXPECT_EQ(contentsOf(written("input")), text);
    if (text.empty()) return;
    EXPECT_THAT(contentsOf(written("arguments")), Not(HasSubstr(text)));
    EXPECT_THAT(contentsOf(written("environment")), Not(HasSubstr(text)));
  }

 private:
  const support::TemporaryDirectory directory_;
  const ScopedEnvironment path_;
  std::unique_ptr<ScopedEnvironment> wayland_;
  std::unique_ptr<ScopedEnvironment> x11_;
};

TEST_F(SessionPasteboardTest, TheEnvironmentDecidesTheProgramAtEachWriting) {
  installRecorder("wl-copy");
  installRecorder("xclip");
  const struct {
    std::optional<std::string> wayland;
    std::optional<std::string> x11;
    const char* arguments;
  } cases[] = {
      {"wayland-0", std::nullopt, kWlCopy},
      {std::nullopt, ":0", kXclip},
      {"wayland-0", ":0", kWlCopy},
      {"", ":0", kXclip},
  };
  SessionPasteboard pasteboard;
  for (const auto& [wayland, x11, arguments] : cases) {
    inSession(wayland, x11);
    pasteboard.replaceContents("text");
    EXPECT_EQ(contentsOf(written("arguments")), arguments);
  }
}

TEST_F(SessionPasteboardTest, WithoutASessionItSaysSo) {
  installRecorder("wl-copy");
  installRecorder("xclip");
  for (const auto& value : {std::optional<std::string>(), std::optional<std::string>("")}) {
    inSession(value, value);
    EXPECT_THAT(failure(), AllOf(HasSubstr("no desktop session"), HasSubstr("WAYLAND_DISPLAY"),
                                 HasSubstr("DISPLAY")));
  }
  EXPECT_FALSE(fs::exists(written("input")));
}

TEST_F(SessionPasteboardTest, AnyTextReachesTheProgramAsItIs) {
  installRecorder("xclip");
  inSession(std::nullopt, ":0");
  std::string large(1U << 20U, 'x');
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>(i * 31U >> 3U);
  for (const std::string& text :
       {std::string("https://h/open/a%20b\nhttps://h/open/c"),
        std::string("Größe 資料 \xF0\x9F\x98\x80"), std::string("a\0b\0", 4),
        std::string("\xFF\xFE"), std::string("--help $(id) `id` 'x'"), std::string(), large}) {
    expectTaken(text);
  }
}

TEST_F(SessionPasteboardTest, AMissingProgramIsNamed) {
  const ScopedEnvironment nothing("PATH", programs().string());
  inSession("wayland-0", std::nullopt);
  EXPECT_THAT(failure(), AllOf(HasSubstr("wl-copy"), HasSubstr("not installed")));
  inSession(std::nullopt, ":0");
  EXPECT_THAT(failure(), AllOf(HasSubstr("xclip"), HasSubstr("not installed")));
}

TEST_F(SessionPasteboardTest, AProgramThatCannotBeStartedIsNamedWithTheReason) {
  const ScopedEnvironment here("PATH", programs().string());
  install("xclip", "exit 0\n");
  fs::permissions(programs() / "xclip", fs::perms::owner_read);
  inSession(std::nullopt, ":0");
  EXPECT_THAT(failure(), AllOf(HasSubstr("xclip"), HasSubstr("Permission denied")));
}

TEST_F(SessionPasteboardTest, AProgramThatFailsIsNamedWithItsStatus) {
  installRecorder("xclip", 3);
  inSession(std::nullopt, ":0");
  EXPECT_THAT(failure(), AllOf(HasSubstr("xclip"), HasSubstr("status 3")));
}

TEST_F(SessionPasteboardTest, AProgramThatIsEndedIsNamedWithItsSignal) {
  install("wl-copy", "kill -TERM $$\n");
  inSession("wayland-0", std::nullopt);
  EXPECT_THAT(failure(), AllOf(HasSubstr("wl-copy"), HasSubstr("signal 15")));
}

TEST_F(SessionPasteboardTest, AProgramThatHangsIsEndedWithAllThatItStarted) {
  install("xclip", "sleep 600 &\necho $$ $! >" + written("pids").string() + "\nwait\n");
  inSession(std::nullopt, ":0");
  const auto before = std::chrono::steady_clock::now();
  EXPECT_THAT(failure("text", milliseconds(700)), AllOf(HasSubstr("xclip"), HasSubstr("in time")));
  EXPECT_GE(std::chrono::steady_clock::now() - before, milliseconds(700));
  pid_t shell = 0;
  pid_t child = 0;
  ASSERT_EQ(std::sscanf(contentsOf(written("pids")).c_str(), "%d %d", &shell, &child), 2);
  EXPECT_EQ(::kill(shell, 0), -1);
  // The orphan is dead at once; who reaps it, and when, is the system's business.
  const std::string status = "/proc/" + std::to_string(child) + "/stat";
  const auto gone = [&] {
    std::string line;
    std::ifstream file(status);  // it may go between any two looks
    return !std::getline(file, line) || line.find(") Z ") != std::string::npos;
  };
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!gone() && std::chrono::steady_clock::now() < deadline) ::usleep(1000);
  EXPECT_TRUE(gone());
}

TEST_F(SessionPasteboardTest, AProgramHasFiveSeconds) {
  EXPECT_EQ(SessionPasteboard::kPatience, std::chrono::seconds(5));
}

TEST_F(SessionPasteboardTest, AProgramThatServesOnInTheBackgroundLetsTheWriterGo) {
  install("xclip", "( exec sleep 600 ) & echo $! >" + written("pid").string() + "\nexit 0\n");
  inSession(std::nullopt, ":0");
  SessionPasteboard().replaceContents("text");
  pid_t server = 0;
  ASSERT_EQ(std::sscanf(contentsOf(written("pid")).c_str(), "%d", &server), 1);
  EXPECT_EQ(::kill(server, 0), 0) << "it goes on";
  ::kill(server, SIGKILL);
}

TEST_F(SessionPasteboardTest, AProgramThatReadsNothingHarmsNobody) {
  install("xclip", "exit 0\n");
  inSession(std::nullopt, ":0");
  std::signal(SIGPIPE, SIG_DFL);
  EXPECT_EQ(failure(std::string(4U << 20U, 'x')), "no failure");
}

TEST_F(SessionPasteboardTest, TheProgramSaysNothingOnOurStreams) {
  install("xclip", "echo chatter; echo complaint >&2; cat >/dev/null\n");
  inSession(std::nullopt, ":0");
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const std::string result = failure();
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(result, "no failure");
}

TEST_F(SessionPasteboardTest, TheProgramHasAGroupAndSignalsOfItsOwn) {
  const std::string out = written("state").string();
  // Not the shell, which begins by clearing its mask.
  install("xclip",
          "open(my $out, '>', '" + out + "');\nopen(my $in, '<', '/proc/self/status');\n" +
              "print $out getpgrp(0), ' ', $$, ' ', grep(/SigBlk/, <$in>);\n",
          "/usr/bin/perl");
  inSession(std::nullopt, ":0");
  sigset_t blocked;
  sigset_t before;
  sigfillset(&blocked);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const std::string result = failure();
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(result, "no failure");
  long group = 0;
  long process = 0;
  unsigned long mask = 1;
  ASSERT_EQ(std::sscanf(contentsOf(out).c_str(), "%ld %ld SigBlk: %lx", &group, &process, &mask),
            3);
  EXPECT_EQ(group, process);
  EXPECT_EQ(mask, 0U);
}

/// Without `descriptors` for the time of a scope.
class Closed {
 public:
  explicit Closed(std::initializer_list<int> descriptors) {
    for (const int descriptor : descriptors) {
      kept_.emplace_back(descriptor, ::fcntl(descriptor, F_DUPFD_CLOEXEC, 100));
      ::close(descriptor);
    }
  }
  ~Closed() {
    for (const auto& [descriptor, copy] : kept_) {
      ::dup2(copy, descriptor);
      ::close(copy);
    }
  }
  Closed(const Closed&) = delete;
  Closed& operator=(const Closed&) = delete;

 private:
  std::vector<std::pair<int, int>> kept_;
};

TEST_F(SessionPasteboardTest, ClosedStandardStreamsAreNoHindrance) {
  installRecorder("xclip");
  inSession(std::nullopt, ":0");
  std::string result;
  const auto writeWithout = [&](std::initializer_list<int> descriptors, const char* text) {
    const Closed closed(descriptors);
    result = failure(text);
  };
  writeWithout({0}, "no input");
  EXPECT_EQ(result, "no failure");
  EXPECT_EQ(contentsOf(written("input")), "no input");
  writeWithout({1}, "no output");
  EXPECT_EQ(contentsOf(written("input")), "no output");
  writeWithout({0, 1, 2}, "nothing");
  EXPECT_EQ(contentsOf(written("input")), "nothing");
}

TEST_F(SessionPasteboardTest, TheTextReachesTheProgramAsItsInputAlone) {
  install("xclip", "ls -l /proc/$$/fd >" + written("descriptors").string() + "\n");
  inSession(std::nullopt, ":0");
  EXPECT_EQ(failure(), "no failure");
  const std::string descriptors = contentsOf(written("descriptors"));
  const auto first = descriptors.find("kestrune-pasteboard");
  ASSERT_NE(first, std::string::npos);
  EXPECT_THAT(descriptors.substr(0, first), HasSubstr(" 0 -> "));
  EXPECT_EQ(descriptors.find("kestrune-pasteboard", first + 1), std::string::npos) << descriptors;
}

}  // namespace
}  // namespace kestrune::platform
