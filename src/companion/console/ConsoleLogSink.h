// Prints every line that is logged in this process. Threads: any.
#pragma once

#include <memory>

#include "companion/console/ConsoleWriter.h"
#include "platform/log/Log.h"

namespace kestrune {

class ConsoleLogSink : public platform::LogSink {
 public:
  /// `showsPrivate`: print the arguments too, private ones included.
  ConsoleLogSink(std::shared_ptr<ConsoleWriter> writer, bool showsPrivate)
      : writer_(std::move(writer)), showsPrivate_(showsPrivate) {}

  void write(const platform::LogRecord& record) override;

 private:
  const std::shared_ptr<ConsoleWriter> writer_;
  const bool showsPrivate_;
};

}  // namespace kestrune
