#include "host/launch/Program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>

#include "host/launch/CrashReports.h"
#include "platform/values/NSError.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

class ProgramTest : public testing::Test {
 protected:
  ProgramTest() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends_), 0); }
  ~ProgramTest() override {
    ::close(ends_[0]);
    ::close(ends_[1]);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);  // nobody is left
  }

  std::unique_ptr<Program> start(const std::vector<std::string>& words) {
    return Program::start({words, {}}, ends_[1], report_.number(), [this](const ProgramEnd& end) {
      ++ends;
      thread_ = std::this_thread::get_id();
      end_ = end;
    });
  }
  std::unique_ptr<Program> sh(const std::string& script) {
    return start({"/bin/sh", "-c", script});
  }
  // How a script ended by itself.
  std::string endOf(const std::string& script) {
    auto program = sh(script);
    EXPECT_TRUE(program->waitUntilEnded(seconds(10)));
    program = nullptr;
    EXPECT_EQ(ends, 1);
    EXPECT_NE(thread_, std::this_thread::get_id());
    ends = 0;
    return end_.text();
  }
  std::string reported() const {
    char text[100];
    const auto got = ::pread(report_.number(), text, sizeof text, 0);
    return {text, static_cast<std::size_t>(std::max<ssize_t>(got, 0))};
  }

  std::atomic<int> ends = 0;

 private:
  const support::TemporaryDirectory temporary_;
  const Descriptor report_ = CrashReports(temporary_.path(), nullptr).open();
  int ends_[2] = {-1, -1};
  ProgramEnd end_;
  std::thread::id thread_;

 protected:
  int socket() const { return ends_[0]; }
};

TEST_F(ProgramTest, OneThatIsMissingIsNamed) {
  try {
    start({"/nowhere/program"});
    FAIL() << "started";
  } catch (const platform::NSPOSIXError& error) {
    EXPECT_EQ(error.code(), ENOENT);
    EXPECT_NE(error.localizedDescription().find("start '/nowhere/program'"), std::string::npos)
        << error.localizedDescription();
  }
  EXPECT_EQ(ends, 0);
}

TEST_F(ProgramTest, OneThatMayNotBeStartedIsNamed) {
  try {
    start({"/dev/null"});
    FAIL() << "started";
  } catch (const platform::NSPOSIXError& error) {
    EXPECT_EQ(error.code(), EACCES);
  }
  EXPECT_EQ(ends, 0);
}

TEST_F(ProgramTest, ItsEndIsToldOnceOnAThreadOfItsOwn) {
  EXPECT_EQ(endOf("exit 0"), "exit code 0");
  EXPECT_EQ(endOf("exit 3"), "exit code 3");
  EXPECT_EQ(endOf("kill -SEGV $$"), "signal 11 (Segmentation fault)");
  EXPECT_EQ(endOf("kill -KILL $$"), "signal 9 (Killed)");
  // Of one that another program started for it.
  EXPECT_EQ(endOf("exit 139"), "signal 11 (Segmentation fault)");
  EXPECT_EQ(endOf("exit 128"), "exit code 128");
  EXPECT_EQ(endOf("exit 255"), "exit code 255");
}

TEST_F(ProgramTest, IsWaitedForAsLongAsIsAsked) {
  const auto program = sh("read line <&3");
  EXPECT_FALSE(program->waitUntilEnded(milliseconds(0)));
  EXPECT_FALSE(program->waitUntilEnded(milliseconds(30)));
  EXPECT_EQ(ends, 0);
  ASSERT_EQ(::write(socket(), "go\n", 3), 3);
  EXPECT_TRUE(program->waitUntilEnded(seconds(10)));
  EXPECT_TRUE(program->waitUntilEnded(milliseconds(0)));
}

TEST_F(ProgramTest, IsKilled) {
  const auto program = sh("read line <&3");
  EXPECT_EQ(::kill(program->pid(), 0), 0);
  program->kill(SIGTERM);
  EXPECT_TRUE(program->waitUntilEnded(seconds(10)));
  // Its number may be another's from now on.
  EXPECT_EQ(::kill(program->pid(), 0), -1);
  program->kill(SIGKILL);
}

TEST_F(ProgramTest, IsKilledWithWhoeverHasIt) {
  auto program = sh("trap '' TERM; read line <&3");
  const int pid = program->pid();
  program = nullptr;
  EXPECT_EQ(ends, 1);
  EXPECT_EQ(::kill(pid, 0), -1);
}

TEST_F(ProgramTest, HasTheSocketAndTheReport) {
  EXPECT_EQ(endOf("echo said >&3; echo noted >&4; read line || echo no input >&4"), "exit code 0");
  char said[5] = {};
  EXPECT_EQ(::read(socket(), said, sizeof said), 5);
  EXPECT_EQ(std::string(said, sizeof said), "said\n");
  EXPECT_EQ(reported(), "noted\nno input\n");
}

// The descriptors that it gets may have the very numbers that it is to find them under, the other way round.
TEST_F(ProgramTest, HasTheSocketAndTheReportWhateverTheirNumbersHere) {
  for (const auto& [socketAt, reportAt] : {std::pair{4, 3}, {3, 4}, {4, 5}, {5, 3}}) {
    const support::TemporaryDirectory directory;
    const Descriptor file = CrashReports(directory.path(), nullptr).open();
    const int saved[] = {::fcntl(3, F_DUPFD_CLOEXEC, 100), ::fcntl(4, F_DUPFD_CLOEXEC, 100),
                         ::fcntl(5, F_DUPFD_CLOEXEC, 100)};
    const Descriptor socketCopy(::fcntl(socket(), F_DUPFD_CLOEXEC, 100));
    const Descriptor fileCopy(::fcntl(file.number(), F_DUPFD_CLOEXEC, 100));
    ::dup2(socketCopy.number(), socketAt);
    ::dup2(fileCopy.number(), reportAt);
    {
      const auto program = Program::start(
          {{"/bin/sh", "-c", "test -S /proc/self/fd/3 && echo noted >&4"}, {}}, socketAt, reportAt,
          [](const ProgramEnd& end) { EXPECT_EQ(end.text(), "exit code 0"); });
      EXPECT_TRUE(program->waitUntilEnded(seconds(10)));
    }
    char text[6] = {};
    EXPECT_EQ(::pread(fileCopy.number(), text, sizeof text, 0), 6);
    for (int i = 0; i < 3; ++i) {
      saved[i] < 0 ? ::close(3 + i) : ::dup2(saved[i], 3 + i);
      if (saved[i] >= 0) ::close(saved[i]);
    }
  }
}

}  // namespace
}  // namespace kestrune::host
