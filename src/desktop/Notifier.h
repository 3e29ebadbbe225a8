// Tells the user, by the desktop's notifications, what nobody may miss: a conflict, a change that the store refuses, that the store knows
// them no more. Each once: again only when it was over in between. One notification for each of the three, which is replaced as
// more comes, so that a hundred conflicts are not a hundred notifications.
//
// A click opens the folder in the file manager. Where nobody shows notifications nothing happens.
//
// Threads: all of it on the thread of the bus.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "desktop/Bus.h"
#include "host/control/HostControl.h"

namespace kestrune::desktop {

class Notifier {
 public:
  /// A change is told of when it was refused so often: some stores say no for a moment.
  static constexpr std::uint64_t kRefusals = 3;

  Notifier(sd_bus* bus, std::string mountPoint);
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;

  void conflicts(const std::vector<std::string>& paths);
  void overview(const host::HostCondition& condition, const host::PendingChanges& pending);

 private:
  struct Handlers;
  /// What one notification is about.
  struct Subject {
    Notifier& notifier;
    /// As the notifications' service calls it; 0: there is none.
    std::uint32_t id = 0;
    /// What a click shows.
    std::string path = {};
    SlotPtr slot = nullptr;
  };
  void notify(Subject& subject, const std::string& summary, const std::string& body,
              std::string path);
  void showFolder(const Subject& subject);

  sd_bus* const bus_;
  const std::string mountPoint_;
  std::set<std::string> conflicts_;
  std::set<std::string> refused_;
  bool isSignedOut_ = false;
  Subject conflict_{*this};
  Subject refusal_{*this};
  Subject signedOut_{*this};
  SlotPtr clicks_;  // last: nothing is called once they have gone
};

}  // namespace kestrune::desktop
