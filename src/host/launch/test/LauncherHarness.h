// A launcher of fragile programs, in time that the test moves.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "boundary/test/ProtocolHarness.h"
#include "host/launch/Launcher.h"
#include "host/test/Awaited.h"
#include "host/test/ManualTimers.h"
#include "tests/support/TemporaryDirectory.h"

namespace kestrune::host::test {

using Told = boundary::test::Told<platform::NSFileProviderItemPtr, platform::NSErrorPtr>;

class LauncherTest : public testing::Test {
 protected:
  LauncherTest();
  /// No program is left, not even a dead one.
  ~LauncherTest() override;

  /// Options of a launcher whose programs are started so.
  LaunchOptions options(std::string mode = "");
  void launch(LaunchOptions options) { launcher = std::make_shared<Launcher>(std::move(options)); }
  void launch(std::string mode = "") { launch(options(std::move(mode))); }

  Awaited<RunningExtensionPtr> startGet();
  /// Throws why there is none.
  RunningExtensionPtr get();
  /// Why there is none, in words.
  std::string refusal();
  /// Asks for an item; its identifier says what the program does then (FragileProgram).
  static Told ask(const RunningExtensionPtr& running, const std::string& identifier);
  /// The item that it answers with.
  static platform::NSFileProviderItemPtr itemOf(const RunningExtensionPtr& running);
  /// The number of the program that answers a call.
  int pidOf(const RunningExtensionPtr& running) const;
  /// Has a program die, and waits until that is known.
  void die(const std::string& how = "kill");

  static bool runs(int pid);
  static bool waitUntilGone(int pid);
  std::vector<std::filesystem::path> reports() const;

  const support::TemporaryDirectory temporary;
  const std::filesystem::path reportDirectory = temporary.path() / "crashes";
  const std::shared_ptr<ManualTimers> timers = std::make_shared<ManualTimers>();
  std::shared_ptr<Launcher> launcher;
};

}  // namespace kestrune::host::test
