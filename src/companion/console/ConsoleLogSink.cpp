#include "companion/console/ConsoleLogSink.h"

#include <variant>

namespace kestrune {

void ConsoleLogSink::write(const platform::LogRecord& record) {
  OrderedJson fields = {{"subsystem", record.subsystem},
                        {"category", record.category},
                        {"level", platform::logLevelName(record.level)},
                        {"format", record.format},
                        {"message", record.message()}};
  if (showsPrivate_) {
    OrderedJson arguments = OrderedJson::array();
    for (const auto& argument : record.arguments) {
      std::visit([&arguments](const auto& value) { arguments.push_back(value); }, argument);
    }
    fields["arguments"] = std::move(arguments);
  }
  writer_->write(nullptr, "log", fields);
}

}  // namespace kestrune
