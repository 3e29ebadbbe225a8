// All mounts of the user on the bus: the object /com/orvanta/Kestrune1 with the interface com.orvanta.Kestrune1.Manager.
//
// Every host has it, and whoever owns the name com.orvanta.Kestrune1 just now is asked. It knows nothing by itself: the bus
// knows who is there, also after a host was killed, and each host is asked where its folder is.
//
// Owns: its registration and the questions under way.
// Threads: all of it on the thread of the bus.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <utility>
#include <vector>

#include "desktop/Bus.h"

namespace kestrune::desktop {

class MountList {
 public:
  /// How long a host may take to answer; one that does not is left out.
  static constexpr std::uint64_t kPatienceMicroseconds = 2'000'000;

  /// `ownName` is the name by which others find this host, `mountPoint` where its folder is.
  MountList(sd_bus* bus, std::string ownName, std::string mountPoint);
  MountList(const MountList&) = delete;
  MountList& operator=(const MountList&) = delete;

  /// The name of the host with this connection: on one bus no two can have the same.
  static std::string nameFor(const char* uniqueName);
  static bool isNameOfHost(const std::string& name);

 private:
  struct Handlers;
  /// One call of "Mounts".
  struct Gathering {
    MountList& list;
    MessagePtr call;
    struct Question {
      Gathering& gathering;
      std::string name;
      SlotPtr slot;
    };
    std::list<Question> questions;
    SlotPtr slot;
    std::size_t left = 0;
    std::vector<std::pair<std::string, std::string>> found;
  };
  void gather(sd_bus_message* call);
  static void ask(Gathering& gathering, std::string name);
  void finish(Gathering& gathering);

  sd_bus* const bus_;
  const std::string ownName_;
  const std::string mountPoint_;
  std::list<Gathering> gatherings_;
  SlotPtr slot_;  // last: nothing is called once it has gone
};

}  // namespace kestrune::desktop
