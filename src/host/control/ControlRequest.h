// What a client of the control socket asks, as one line of JSON:
//
//     {"op":"about"}                               who answers: the mount point, the domain, the process, its version
//     {"op":"status"}
//     {"op":"pending","path":"/","most":100}       both may be left out
//     {"op":"sync","path":"/a","wait":true,"timeout":60}   seconds; without "wait": try now and say what is left
//     {"op":"pin","paths":["/a","/b"]}             also unpin, evict, download, link, state, why
//     {"op":"allow-deletions"}, {"op":"keep-deleted"}
//     {"op":"log"}                                 the host's latest log lines
//     {"op":"end"}                                 answered when it begins to end; the connection ends with the host
//     {"op":"restart"}                             answered with why it failed; else the connection ends, and the new host
//                                                  tells by "about" that it is another ("restarts")
//
// Paths begin with "/" at the mount point. A path that is no UTF-8 is written as {"hex":"2fff"}, its bytes in
// hexadecimal digits, here and in answers.
//
// Threads: values and plain functions. Fails: InvalidRequest, whose text tells the writer of the line what is wrong.
#pragma once

#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "host/control/HostControl.h"
#include "platform/values/Json.h"

namespace kestrune::host {

class InvalidRequest : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct ControlRequest {
  enum class Op {
    about,
    status,
    pending,
    sync,
    pin,
    unpin,
    evict,
    download,
    link,
    state,
    why,
    log,
    end,
    allowDeletions,
    keepDeleted,
    restart,
  };
  static constexpr std::size_t kDefaultChanges = 100;
  static constexpr std::size_t kMostChanges = 1000;
  static constexpr std::size_t kMostPaths = 10'000;
  static constexpr std::chrono::seconds kDefaultTimeout{60};
  static constexpr std::chrono::seconds kLongestTimeout{std::chrono::hours(24)};

  Op op = Op::about;
  /// Of `pending` and `sync`.
  std::string path = "/";
  /// Of the operations on items.
  std::vector<std::string> paths;
  std::size_t most = kDefaultChanges;
  bool waits = false;
  std::chrono::seconds timeout = kDefaultTimeout;

  /// Throws InvalidRequest unless `line` is a request; unknown names are refused, so that a misspelt option is not
  /// taken for none.
  static ControlRequest parse(std::string_view line);
  /// The line, without its end.
  std::string encode() const;
};

/// Whether `path` is of the form that HostControl asks for.
bool isControlPath(std::string_view path);

/// A path in a request or an answer.
platform::Json pathToJson(const std::string& path);
/// Throws InvalidRequest if it is neither a text nor hexadecimal digits.
std::string pathFromJson(const platform::Json& value);

}  // namespace kestrune::host
