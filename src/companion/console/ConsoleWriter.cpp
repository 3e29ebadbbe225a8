#include "companion/console/ConsoleWriter.h"

#include <cassert>
#include <string>

namespace kestrune {

namespace {

template <class AnyJson>
std::string compact(const AnyJson& value) {
  return value.dump(-1, ' ', false, AnyJson::error_handler_t::replace);
}

}  // namespace

void ConsoleWriter::write(const platform::Json& id, std::string_view event,
                          const OrderedJson& fields) {
  assert(fields.is_object());
  // Only the number has to wait for the lock: a listing of 100,000 items is turned into text
  // outside of it.
  const std::string head =
      R"({"id":)" + compact(id) + R"(,"event":)" + compact(OrderedJson(event)) + R"(,"seq":)";
  std::string tail = compact(fields);
  tail.replace(0, 1, fields.empty() ? "" : ",");
  tail += '\n';
  platform::MutexLock lock(mutex_);
  output_(head + std::to_string(++lastNumber_) + tail);
}

}  // namespace kestrune
