// What the service is started with.
#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "platform/files/AtomicFile.h"

namespace kestrune::service {

/// How long the service waits for a client.
struct Timeouts {
  /// For the whole header, from its first byte.
  std::chrono::milliseconds header = std::chrono::seconds(30);
  /// For the next byte of a body, and for the client to take the next piece of an answer.
  std::chrono::milliseconds body = std::chrono::seconds(60);
  /// For the next request on a connection.
  std::chrono::milliseconds keepAlive = std::chrono::seconds(75);
  /// Before a wrong token of somebody who signs in on the web page is answered.
  std::chrono::milliseconds wrongToken = std::chrono::seconds(1);
  /// For running requests after the service was asked to stop.
  std::chrono::milliseconds drain = std::chrono::seconds(10);
};

struct Options {
  /// The directory that is served.
  std::filesystem::path root;
  /// Where uploads grow; empty for a hidden sibling of the root.
  std::filesystem::path staging;
  /// A numeric address, or "localhost" for both loopback addresses.
  std::string listenHost = "127.0.0.1";
  /// 0 for any free port.
  std::uint16_t listenPort = 0;
  /// What clients reach this service by, if not by the address that it listens on:
  /// "https://files.example.org/store".
  std::optional<std::string> publicURL;
  /// Threads for the network; 0 for one a processor.
  unsigned threads = 0;
  /// How long a pre-signed URL is valid.
  std::chrono::seconds urlLifetime = std::chrono::hours(1);
  /// Whether a change is on the disk before it is confirmed.
  platform::Durability durability = platform::Durability::durable;
  /// Whether changes that other programs make in the tree are announced.
  bool watchTree = true;
  Timeouts timeouts;
};

}  // namespace kestrune::service
