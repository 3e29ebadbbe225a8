// The console's output: one JSON object a line, numbered in the order in which the lines are
// written.
//
// A line begins with "id", "event" and "seq"; the fields of its event follow in the order in which
// they were added. Texts whose bytes are not UTF-8 are shown with replacement characters: whatever
// an extension says, a line stays JSON.
//
// Threads: `write` may be called from any thread; lines never mix. It returns when the output has
// taken the line, so nothing that was printed is lost when the process dies in the next statement.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string_view>

#include "platform/values/Json.h"
#include "platform/values/Mutex.h"

namespace kestrune {

/// An object whose keys keep the order in which they were added.
using OrderedJson = nlohmann::ordered_json;

class ConsoleWriter {
 public:
  /// Takes one whole line, its line feed included. It is called by one thread at a time and must
  /// not throw.
  using Output = std::function<void(std::string_view line)>;

  explicit ConsoleWriter(Output output) : output_(std::move(output)) {}

  /// Writes the line of `event`. REQUIRES: `fields` is an object, possibly empty.
  void write(const platform::Json& id, std::string_view event, const OrderedJson& fields)
      EXCLUDES_LOCK(mutex_);

 private:
  platform::Mutex mutex_;
  std::uint64_t lastNumber_ GUARDED_BY(mutex_) = 0;
  const Output output_;
};

}  // namespace kestrune
