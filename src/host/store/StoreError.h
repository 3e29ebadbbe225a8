// Why the host's database cannot be used.
#pragma once

#include <string>

#include "platform/values/NSError.h"

namespace kestrune::host {

class StoreError : public platform::NSErrorOf<StoreError> {
 public:
  enum class Case {
    failed = 0,   // this one thing could not be done: no space, no permission, a rule of the schema
    damaged = 1,  // the file is no database, or not a sound one
    foreign = 2,  // a sound database of another program
    newer = 3,    // made by a later version of this one
  };
  static constexpr const char* kDomain = "Kestrune.StoreError";

  StoreError(Case which, std::string description)
      : NSErrorOf(kDomain, static_cast<std::int64_t>(which), std::move(description)) {}

  Case which() const { return static_cast<Case>(code()); }
};

}  // namespace kestrune::host
