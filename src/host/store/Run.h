// One execution of a prepared statement: its values, one after the other, then `exec`.
//
// Values are not copied: they live until the statement has run. However that ends, the statement is ready for its next run
// when this one goes.
//
// Threads: one at a time. Fails: throws SQLite::Exception.
#pragma once

#include <SQLiteCpp/Statement.h>

#include <bit>
#include <cstdint>
#include <string>

#include "host/basics/FileTime.h"

namespace kestrune::host {

class Run {
 public:
  explicit Run(SQLite::Statement& statement) : statement_(statement) {}
  ~Run() { statement_.tryReset(); }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

  Run& number(std::int64_t value) {
    statement_.bind(++index_, value);
    return *this;
  }
  Run& bits(std::uint64_t value) { return number(std::bit_cast<std::int64_t>(value)); }
  /// A BLOB.
  Run& bytes(const std::string& value) {
    statement_.bindNoCopy(++index_, value.data(), static_cast<int>(value.size()));
    return *this;
  }
  Run& text(const std::string& value) {
    statement_.bindNoCopy(++index_, value);
    return *this;
  }
  Run& time(const FileTime& value) { return number(value.seconds).number(value.nanoseconds); }
  Run& nulls(int count) {
    while (count-- > 0) statement_.bind(++index_);
    return *this;
  }
  void exec() { statement_.exec(); }

 private:
  SQLite::Statement& statement_;
  int index_ = 0;
};

}  // namespace kestrune::host
