// kestrune-service: builds the parts, serves, and ends in order on SIGTERM or SIGINT.

#include <fmt/format.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>

#include <boost/asio/ip/address.hpp>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <string>

#include "service/BearerToken.h"
#include "service/CommandLine.h"
#include "service/Server.h"
#include "service/Service.h"

namespace {

using namespace kestrune;

/// Blocked in every thread, so that only `waitForSignal` takes them.
sigset_t blockStopSignals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  return signals;
}

/// The token is in this process's memory: no core dump, and no other process of the user may look
/// inside.
void protectMemory() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_CORE, &none);
#ifndef KESTRUNE_SANITIZED  // The leak check traces its own process.
  prctl(PR_SET_DUMPABLE, 0);
#endif
}

/// A connection and its file take two descriptors, and the usual soft limit is 1,024.
void raiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

void warn(const std::string& text) { fmt::print(stderr, "kestrune-service: warning: {}\n", text); }

bool isLoopback(const std::string& host) {
  boost::system::error_code error;
  const auto address = boost::asio::ip::make_address(host, error);
  return error ? host == "localhost" : address.is_loopback();
}

int serve(const service::CommandLine& line, const sigset_t& stopSignals) {
  std::string warning;
  const platform::Secret token = service::readTokenFile(line.tokenFile, warning);
  if (!warning.empty()) warn(warning);
  if (!isLoopback(line.options.listenHost)) {
    warn(
        "the token and all contents cross the network in clear; let a proxy that speaks TLS listen "
        "there instead");
  }
  service::Service service(line.options, token);
  service::Server server(line.options, service);
  server.start();
  fmt::print("kestrune-service: serving {} on http://{}:{}\n",
             std::filesystem::absolute(line.options.root).lexically_normal().string(),
             service::urlHost(line.options.listenHost), server.port());
  std::fflush(stdout);
  int received = 0;
  sigwait(&stopSignals, &received);
  if (server.stop() == service::Server::End::stillBusy) {
    // Waiting for a disk without an end helps nobody: changes of the tree are single calls of the
    // kernel, and what lies in the staging directory is cleared up at the next start.
    std::_Exit(0);
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int exitCode = 0;
  const auto line = service::parseCommandLine(argc, argv, exitCode);
  if (!line) return exitCode;
  protectMemory();
  raiseDescriptorLimit();
  const sigset_t stopSignals = blockStopSignals();
  try {
    return serve(*line, stopSignals);
  } catch (const std::exception& error) {
    fmt::print(stderr, "kestrune-service: {}\n", error.what());
    return 1;
  }
}
