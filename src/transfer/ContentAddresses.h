// Remembers for a while under which address the storage gave bytes of a version, and which entity tag it gave them. Whoever
// wants more bytes of that version asks there at once: the same tag says that they are bytes of the same version, which
// takes one request instead of three and is surer than a listing, because nothing can come in between.
//
// Threads: every operation may be called from any thread.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/net/URL.h"
#include "platform/values/Date.h"
#include "platform/values/Mutex.h"

namespace kestrune {

class ContentAddresses {
 public:
  struct Address {
    platform::URL url;  // a secret, as whoever has it may read
    std::string entityTag;
  };
  /// An address that is older is not used: who may read a file no longer should learn that soon.
  static constexpr std::chrono::seconds kStalenessAge{60};

  explicit ContentAddresses(std::shared_ptr<const platform::Clock> clock)
      : clock_(std::move(clock)) {}

  /// None if there is none for this version.
  std::optional<Address> find(const std::string& path, const std::string& version) const;
  /// Replaces what is remembered of `path`. A tag that is empty or weak says too little: then nothing is remembered.
  void remember(const std::string& path, const std::string& version, Address address);
  void forget(const std::string& path);

 private:
  struct Known {
    std::string version;
    Address address;
    platform::Date since;
  };

  const std::shared_ptr<const platform::Clock> clock_;
  mutable platform::Mutex lock_;
  std::unordered_map<std::string, Known> known_ GUARDED_BY(lock_);
};

}  // namespace kestrune
