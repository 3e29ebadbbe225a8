// Tells the user, by the desktop's notifications, what nobody may miss: a conflict, a change that the store refuses, that the store knows
// them no more. Each once: again only when it was over in between. One notification for each of the three, which is replaced as
// more comes, so that a hundred conflicts are not a hundred notifications. Conflicts from before are told once at the beginning.
//
// A click opens the folder in the file manager; buttons try again what was refused, and show how the mount is doing, in a notification
// too. Where nobody shows notifications they wait for somebody who does.
//
// Threads: all of it on the thread of the bus.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
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

  /// What buttons do.
  struct Deeds {
    /// Has the next overview come soon.
    std::function<void()> look;
    /// Sends all that waits.
    std::function<void()> tryNow;
  };
  Notifier(sd_bus* bus, std::string mountPoint, Deeds deeds);
  Notifier(const Notifier&) = delete;
  Notifier& operator=(const Notifier&) = delete;

  /// These arose.
  void conflicts(const std::vector<std::string>& paths);
  void overview(const host::HostCondition& condition, const host::PendingChanges& pending);

 private:
  struct Handlers;
  /// What one notification is about.
  struct Subject {
    Notifier& notifier;
    bool mayTryAgain = false;
    /// As the notifications' service calls it; 0: there is none.
    std::uint32_t id = 0;
    std::string summary = {};
    std::string body = {};
    /// What a click shows.
    std::string path = {};
    /// Nobody was there to show it.
    bool isMissed = false;
    SlotPtr slot = nullptr;
  };
  void tellStandingConflicts(const host::HostCondition& condition);
  void tellSignedOut(bool isSignedOut);
  void tellRefused(const host::PendingChanges& pending);
  void notify(Subject& subject, std::string summary, std::string body, std::string path);
  void show(Subject& subject);
  void act(const Subject& subject, const std::string& action);
  void showFolder(const Subject& subject);
  std::array<Subject*, 4> subjects() { return {&conflict_, &refusal_, &signedOut_, &status_}; }

  sd_bus* const bus_;
  const std::string mountPoint_;
  const Deeds deeds_;
  std::set<std::string> conflicts_;
  std::set<std::string> refused_;
  bool isSignedOut_ = false;
  bool hasSeenOverview_ = false;
  bool isStatusWanted_ = false;
  Subject conflict_{*this};
  Subject refusal_{*this, true};
  Subject signedOut_{*this};
  Subject status_{*this};
  SlotPtr clicks_;  // last: nothing is called once they have gone
  SlotPtr services_;
};

}  // namespace kestrune::desktop
