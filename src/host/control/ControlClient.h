// A program's side of the control socket: asks a running host, and waits for the answers.
//
// Threads: belongs to one thread, which it blocks. Fails: NSPOSIXError where there is no host (ENOENT, ECONNREFUSED) or it
// goes away (ECONNRESET) or is silent for too long (ETIMEDOUT); ControlRefusal where it says no.
#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "host/basics/LocalFile.h"
#include "host/control/ControlRequest.h"
#include "platform/values/Json.h"

namespace kestrune::host {

/// The host's own text.
class ControlRefusal : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class ControlClient {
 public:
  explicit ControlClient(const std::filesystem::path& socketFile);

  using Progress = std::function<void(const platform::Json& line)>;
  /// Asks and returns the result. `progress` is called for each line before it. With `patience`, how long the host may
  /// be silent.
  platform::Json ask(const ControlRequest& request, const Progress& progress = nullptr,
                     std::optional<std::chrono::milliseconds> patience = std::nullopt);

 private:
  void send(const std::string& bytes) const;
  std::string readLine(std::optional<std::chrono::milliseconds> patience);

  const std::string what_;
  const std::unique_ptr<Descriptor> connection_;
  std::string unread_;
};

}  // namespace kestrune::host
