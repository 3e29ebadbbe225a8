// The calls that the console understands: one function per op, which reads its arguments, then
// makes the call.
//
// Threads: belongs to the console's thread. Fails: InvalidCall, before anything was done.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string_view>

#include "companion/console/ConsoleCall.h"
#include "companion/console/ConsoleClock.h"
#include "companion/console/ConsoleManager.h"
#include "companion/console/ConsoleRequest.h"
#include "platform/file_provider/NSFileProviderReplicatedExtension.h"

namespace kestrune {

class ConsoleOperations {
 public:
  struct Parts {
    std::shared_ptr<platform::NSFileProviderReplicatedExtension> extension;
    std::shared_ptr<ConsoleManager> manager;
    std::shared_ptr<ConsoleClock> clock;
  };

  /// REQUIRES: `surroundings` outlives this and every call made.
  ConsoleOperations(CallSurroundings& surroundings, Parts parts);

  /// Makes the call. Only `wait` waits for anything.
  void run(const ConsoleRequest& request);

 private:
  struct Operation;
  static const Operation* find(std::string_view name);
  bool isOffered(const Operation& operation) const;

  void item(const ConsoleRequest& request);
  void enumerateItems(const ConsoleRequest& request);
  void enumerateChanges(const ConsoleRequest& request);
  void currentSyncAnchor(const ConsoleRequest& request);
  void fetchContents(const ConsoleRequest& request);
  void fetchPartialContents(const ConsoleRequest& request);
  void createItem(const ConsoleRequest& request);
  void modifyItem(const ConsoleRequest& request);
  void deleteItem(const ConsoleRequest& request);
  void performAction(const ConsoleRequest& request);
  void invalidate(const ConsoleRequest& request);
  void orderManager(const ConsoleRequest& request);
  void wait(const ConsoleRequest& request);
  void cancel(const ConsoleRequest& request);
  void advanceClock(const ConsoleRequest& request);

  void perform(const ConsoleRequest& request, ConsoleCall::Kind kind,
               const ConsoleCall::Method& method);
  void complete(const ConsoleRequest& request);

  CallSurroundings& surroundings_;
  const std::shared_ptr<platform::NSFileProviderReplicatedExtension> extension_;
  const std::shared_ptr<ConsoleManager> manager_;
  const std::shared_ptr<ConsoleClock> clock_;

  // The extension's further protocols, or null; they live as long as it does.
  platform::NSFileProviderPartialContentFetching* const partialContents_;
  platform::NSFileProviderCustomAction* const customActions_;
};

}  // namespace kestrune
