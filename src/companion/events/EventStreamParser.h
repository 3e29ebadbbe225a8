// Server-sent events: how many there were in the bytes of a stream. What they say does not matter, so nothing is kept of
// them but what is needed to see where one ends: an event is data, perhaps other fields, and an empty line. Comments, which
// keep a connection alive, are none.
//
// Threads: belongs to one thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace kestrune {

class EventStreamParser {
 public:
  /// How many events end in these bytes. Pieces may be cut anywhere.
  std::size_t take(std::string_view bytes);

 private:
  /// True if an event ends with this line.
  bool endLine();

  std::string name_;  // the first bytes of the present line, as many as decide which field it is
  bool isEmpty_ = true;
  bool hasData_ = false;
  bool afterReturn_ = false;
  bool atStart_ = true;
};

}  // namespace kestrune
