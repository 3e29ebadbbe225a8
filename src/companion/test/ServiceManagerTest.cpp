#include "companion/ServiceManager.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

namespace kestrune {
namespace {

// What a service manager hears.
class ServiceManagerTest : public testing::Test {
 protected:
  ServiceManagerTest() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string name = testing::TempDir() + "notify-" + std::to_string(::getpid());
    std::strncpy(address.sun_path, name.c_str(), sizeof address.sun_path - 1);
    ::unlink(name.c_str());
    EXPECT_EQ(::bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ::setenv("NOTIFY_SOCKET", name.c_str(), 1);
  }
  ~ServiceManagerTest() override {
    ::unlink(std::getenv("NOTIFY_SOCKET"));
    ::close(socket_);
    for (const char* name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"}) ::unsetenv(name);
  }
  std::string heard(std::chrono::milliseconds within = std::chrono::seconds(10)) const {
    pollfd coming{socket_, POLLIN, 0};
    if (::poll(&coming, 1, static_cast<int>(within.count())) <= 0) return {};
    char text[1024];
    const ssize_t length = ::recv(socket_, text, sizeof text, 0);
    return {text, static_cast<std::size_t>(length)};
  }

 private:
  const int socket_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

TEST_F(ServiceManagerTest, HearsOfTheBeginAndTheEnd) {
  std::optional<ServiceManager> manager("/home/a\nb");
  EXPECT_EQ(heard(), "READY=1\nSTATUS=Mounted at /home/a?b");
  EXPECT_EQ(heard(std::chrono::milliseconds(50)), "") << "it wants no pings";
  manager.reset();
  EXPECT_EQ(heard(), "STOPPING=1\nSTATUS=Ending");
}

TEST_F(ServiceManagerTest, HearsThatTheHostLivesAtTwiceTheRateThatItWants) {
  ::setenv("WATCHDOG_USEC", "200000", 1);
  std::optional<ServiceManager> manager("/x");
  heard();
  EXPECT_EQ(heard(std::chrono::milliseconds(0)), "WATCHDOG=1");
  const auto begun = std::chrono::steady_clock::now();
  for (int i = 0; i < 3; ++i) EXPECT_EQ(heard(), "WATCHDOG=1");
  const auto passed = std::chrono::steady_clock::now() - begun;
  EXPECT_GE(passed, std::chrono::milliseconds(250));
  manager.reset();
  EXPECT_EQ(heard(), "STOPPING=1\nSTATUS=Ending");
  EXPECT_EQ(heard(std::chrono::milliseconds(250)), "");
}

TEST_F(ServiceManagerTest, TheWatchdogOfAnotherProcessIsNoneOfThisOne) {
  ::setenv("WATCHDOG_USEC", "100000", 1);
  ::setenv("WATCHDOG_PID", "1", 1);
  const ServiceManager manager("/x");
  heard();
  EXPECT_EQ(heard(std::chrono::milliseconds(200)), "");
}

}  // namespace
}  // namespace kestrune
