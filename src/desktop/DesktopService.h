// The mounted folder on the desktop's message bus, for as long as this lives: file managers ask there what of a folder is here. And on
// the system's bus, where it has a shutdown wait for what is unsent.
//
// Nothing depends on it. Where there is no bus (a server, a login by ssh, a container) it looks for one now and then; where one goes
// away it comes back with the next one. Access to the session's bus is the bus's own: it lets in the same user.
//
// Threads: `kes-desktop` of its own, which waits for nobody; constructor and destructor on any other. The host's answers may come on any
// thread, also after the end: they then go nowhere.
#pragma once

#include <memory>
#include <thread>

#include "desktop/MountObject.h"
#include "host/control/HostControl.h"

namespace kestrune::desktop {

class DesktopService {
 public:
  /// `control` outlives the object, and is watched by nobody else.
  DesktopService(MountFacts facts, host::HostControl& control);
  ~DesktopService();
  DesktopService(const DesktopService&) = delete;
  DesktopService& operator=(const DesktopService&) = delete;

 private:
  class Loop;
  const std::shared_ptr<Mailbox> mailbox_;
  const std::unique_ptr<Loop> loop_;
  std::thread thread_;
};

}  // namespace kestrune::desktop
