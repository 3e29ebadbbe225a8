#include "tests/support/DetachedTasks.h"

#include "platform/tasks/Task.h"

namespace kestrune::support {

DetachedTasks::DetachedTasks(const std::function<void()>& call) {
  const auto ledger = platform::TaskLedger::make();
  {
    const platform::TaskLedger::Scope scope(ledger);
    call();
  }
  auto ended = std::make_shared<std::promise<void>>();
  ended_ = ended->get_future();
  ledger->open();
  ledger->whenIdle([ended] { ended->set_value(); });
}

bool DetachedTasks::waitUntilEnded(std::chrono::milliseconds deadline) const {
  return ended_.wait_for(deadline) == std::future_status::ready;
}

}  // namespace kestrune::support
