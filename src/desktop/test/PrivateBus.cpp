#include "desktop/test/PrivateBus.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "desktop/MountList.h"

namespace kestrune::desktop::test {

namespace {

constexpr std::chrono::seconds kDeadline{20};
constexpr std::uint64_t kAnswerMicroseconds = 20'000'000;

std::chrono::steady_clock::time_point deadline() {
  return std::chrono::steady_clock::now() + kDeadline;
}

std::string programFile() {
  for (const char* file : {"/usr/bin/dbus-daemon", "/bin/dbus-daemon"}) {
    if (::access(file, X_OK) == 0) return file;
  }
  return {};
}

const char* variableOf(WhichBus which) {
  return which == WhichBus::session ? "DBUS_SESSION_BUS_ADDRESS" : "DBUS_SYSTEM_BUS_ADDRESS";
}

}  // namespace

sd_bus* openBus(WhichBus which) {
  sd_bus* opened = nullptr;
  check(which == WhichBus::session ? sd_bus_open_user(&opened) : sd_bus_open_system(&opened),
        "open the bus");
  return opened;
}

bool PrivateBus::isMissing() { return programFile().empty(); }

PrivateBus::PrivateBus(WhichBus which) : which_(which) {
  static const bool isApart = [] {
    for (const WhichBus each : {WhichBus::session, WhichBus::system})
      ::setenv(variableOf(each), "unix:path=/nowhere/bus", 1);
    return true;
  }();
  static_cast<void>(isApart);
  const std::string address = "unix:path=" + (directory_.path() / "bus").string();
  ::setenv(variableOf(which_), address.c_str(), 1);
}

void PrivateBus::start() {
  std::filesystem::remove(directory_.path() / "bus");
  std::vector<std::string> words = {programFile(), "--session", "--nofork", "--nopidfile",
                                    std::string("--address=") + std::getenv(variableOf(which_))};
  std::vector<char*> arguments;
  for (std::string& word : words) arguments.push_back(word.data());
  arguments.push_back(nullptr);
  if (::posix_spawn(&process_, words[0].c_str(), nullptr, nullptr, arguments.data(), environ) != 0)
    throw std::runtime_error("dbus-daemon cannot be started");
  for (const auto until = deadline(); std::chrono::steady_clock::now() < until;) {
    try {
      const BusPtr bus(openBus(which_));
      return;
    } catch (const std::system_error&) {  // not yet
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  throw std::runtime_error("dbus-daemon takes no connections");
}

void PrivateBus::stop() {
  if (process_ == 0) return;
  ::kill(process_, SIGKILL);
  ::waitpid(std::exchange(process_, 0), nullptr, 0);
}

BusClient::BusClient(WhichBus which) : bus_(openBus(which)) {}

std::vector<std::string> BusClient::hosts() {
  sd_bus_message* answered = nullptr;
  check(sd_bus_call_method(bus_.get(), "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "ListNames", nullptr, &answered, nullptr),
        "list names");
  const MessagePtr answer(answered);
  std::vector<std::string> hosts;
  const char* name = nullptr;
  check(sd_bus_message_enter_container(answered, 'a', "s"), "read names");
  while (sd_bus_message_read_basic(answered, 's', &name) > 0) {
    if (MountList::isNameOfHost(name)) hosts.emplace_back(name);
  }
  return hosts;
}

std::vector<std::string> BusClient::waitForHosts(std::size_t count) {
  for (const auto until = deadline(); std::chrono::steady_clock::now() < until;) {
    if (auto found = hosts(); found.size() == count) return found;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  throw std::runtime_error("there are not so many hosts on the bus");
}

MessagePtr BusClient::call(const std::string& host, const char* method,
                           const std::function<void(sd_bus_message*)>& arguments,
                           std::string& error) {
  sd_bus_message* made = nullptr;
  check(sd_bus_message_new_method_call(bus_.get(), &made, host.c_str(), kMountPath, kMountInterface,
                                       method),
        "begin a call");
  const MessagePtr message(made);
  arguments(made);
  sd_bus_message* answer = nullptr;
  sd_bus_error told{};
  if (sd_bus_call(bus_.get(), made, kAnswerMicroseconds, &told, &answer) < 0)
    error = told.name != nullptr ? told.name : "none";
  sd_bus_error_free(&told);
  return MessagePtr(answer);
}

std::map<std::string, BusClient::State> BusClient::folderStates(const std::string& host,
                                                                const std::string& folder) {
  std::string error;
  const MessagePtr answer = call(
      host, "FolderStates", [&](sd_bus_message* message) { appendBytes(message, folder); }, error);
  if (!answer) throw std::runtime_error(error);
  std::map<std::string, State> states;
  check(sd_bus_message_enter_container(answer.get(), 'a', "(aysb)"), "read states");
  while (check(sd_bus_message_enter_container(answer.get(), 'r', "aysb"), "read states") > 0) {
    std::string name;
    const char* word = nullptr;
    int isKept = 0;
    check(readBytes(answer.get(), name), "read states");
    check(sd_bus_message_read(answer.get(), "sb", &word, &isKept), "read states");
    check(sd_bus_message_exit_container(answer.get()), "read states");
    states[name] = {word, isKept != 0};
  }
  return states;
}

std::vector<std::string> BusClient::act(const std::string& host, const char* method,
                                        const std::vector<std::string>& paths) {
  std::string error;
  const MessagePtr answer = call(
      host, method, [&](sd_bus_message* message) { appendPaths(message, paths); }, error);
  if (!answer) throw std::runtime_error(error);
  std::vector<std::string> errors;
  const char* text = nullptr;
  check(sd_bus_message_enter_container(answer.get(), 'a', "s"), "read errors");
  while (sd_bus_message_read_basic(answer.get(), 's', &text) > 0) errors.emplace_back(text);
  return errors;
}

MessagePtr BusClient::property(const std::string& host, const char* name, const char* type) {
  sd_bus_message* answer = nullptr;
  check(sd_bus_get_property(bus_.get(), host.c_str(), kMountPath, kMountInterface, name, nullptr,
                            &answer, type),
        "get a property");
  return MessagePtr(answer);
}

int BusClient::signalled(sd_bus_message* message, void* data, sd_bus_error*) {
  std::string heard = sd_bus_message_get_member(message);
  if (heard == "StatesChanged") {
    std::string folder;
    readBytes(message, folder);
    heard += " " + folder;
  } else {
    const char* text = nullptr;
    sd_bus_message_read(message, "s", &text);
    sd_bus_message_enter_container(message, 'a', "{sv}");
    while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
      sd_bus_message_read(message, "s", &text);
      heard += std::string(" ") + text;
      sd_bus_message_skip(message, "v");
      sd_bus_message_exit_container(message);
    }
  }
  static_cast<BusClient*>(data)->signals_.push_back(std::move(heard));
  return 0;
}

void BusClient::listen() {
  check(sd_bus_match_signal(bus_.get(), nullptr, nullptr, kMountPath, nullptr, nullptr, &signalled,
                            this),
        "listen");
}

std::vector<std::string> BusClient::takeSignals(std::size_t count) {
  for (const auto until = deadline(); signals_.size() < count;) {
    if (std::chrono::steady_clock::now() > until) throw std::runtime_error("no such signals");
    while (check(sd_bus_process(bus_.get(), nullptr), "hear signals") > 0) {
    }
    if (signals_.size() < count) sd_bus_wait(bus_.get(), 100'000);
  }
  return std::exchange(signals_, {});
}

std::vector<std::string> BusClient::takeSignalsFor(std::chrono::milliseconds duration) {
  for (const auto until = std::chrono::steady_clock::now() + duration;
       std::chrono::steady_clock::now() < until;) {
    while (check(sd_bus_process(bus_.get(), nullptr), "hear signals") > 0) {
    }
    sd_bus_wait(bus_.get(), 20'000);
  }
  return std::exchange(signals_, {});
}

void appendPaths(sd_bus_message* message, const std::vector<std::string>& paths) {
  check(sd_bus_message_open_container(message, 'a', "ay"), "add paths");
  for (const std::string& path : paths) appendBytes(message, path);
  check(sd_bus_message_close_container(message), "add paths");
}

}  // namespace kestrune::desktop::test
