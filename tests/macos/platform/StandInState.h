// What the stand-in platform remembers. Only its own sources include this.
#pragma once

#include <functional>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "StandIn.h"
#include "platform/values/Mutex.h"

namespace standin {

struct Failure {
  long code;
  std::string description;
};

class State {
 public:
  static State& shared();

  /// Notes the call and answers it from a thread of its own, with its failure or null.
  void recordAndAnswer(const ManagerCall& call, std::function<void(const Failure*)> answer);
  bool hasManagers();

  kestrune::platform::Mutex mutex;
  std::vector<ManagerCall> calls GUARDED_BY(mutex);
  std::map<std::string, Failure> failures GUARDED_BY(mutex);
  bool managers GUARDED_BY(mutex) = true;
  std::vector<LogLine> lines GUARDED_BY(mutex);
  std::optional<std::string> pasteboard GUARDED_BY(mutex);
  bool touchedElsewhere GUARDED_BY(mutex) = false;
};

}  // namespace standin
