// Notifications, heard by a service of the test's own on a private bus.
#include "desktop/Notifier.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "desktop/DesktopService.h"
#include "desktop/test/PrivateBus.h"
#include "host/control/test/FakeHostControl.h"

namespace kestrune::desktop::test {

namespace {

using host::FakeHostControl;
using testing::ElementsAre;
using testing::HasSubstr;

/// Shows notifications, and folders.
class FakeDesktop {
 public:
  explicit FakeDesktop(sd_bus* bus) : bus_(bus) {
    static const sd_bus_vtable kNotifications[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("Notify", "susssasa{sv}i", "u", notified, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL("ActionInvoked", "us", 0), SD_BUS_VTABLE_END};
    static const sd_bus_vtable kFolders[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD("ShowFolders", "ass", "", shownFolders, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};
    check(sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/Notifications", kName,
                                   kNotifications, this),
          "add");
    check(sd_bus_add_object_vtable(bus, nullptr, "/org/freedesktop/FileManager1",
                                   "org.freedesktop.FileManager1", kFolders, this),
          "add");
    check(sd_bus_request_name(bus, "org.freedesktop.FileManager1", 0), "own");
  }
  void begin() { check(sd_bus_request_name(bus_, kName, 0), "own"); }
  void end() { check(sd_bus_release_name(bus_, kName), "leave"); }
  void click(std::uint32_t id, const char* action = "default") {
    check(sd_bus_emit_signal(bus_, "/org/freedesktop/Notifications", kName, "ActionInvoked", "us",
                             id, action),
          "click");
  }

  struct Shown {
    std::uint32_t replaced = 0;
    std::string summary;
    std::string body;
    /// Without their labels.
    std::vector<std::string> actions = {};
  };
  std::vector<Shown> shown;
  std::vector<std::string> folders;

 private:
  static constexpr const char* kName = "org.freedesktop.Notifications";

  static int notified(sd_bus_message* call, void* data, sd_bus_error*) {
    auto& self = *static_cast<FakeDesktop*>(data);
    const char* application = nullptr;
    const char* icon = nullptr;
    const char* summary = nullptr;
    const char* body = nullptr;
    std::uint32_t replaced = 0;
    sd_bus_message_read(call, "susss", &application, &replaced, &icon, &summary, &body);
    self.shown.push_back({replaced, summary, body});
    const char* action = nullptr;
    const char* label = nullptr;
    sd_bus_message_enter_container(call, 'a', "s");
    while (sd_bus_message_read(call, "ss", &action, &label) > 0)
      self.shown.back().actions.emplace_back(action);
    const std::uint32_t id =
        replaced != 0 ? replaced : static_cast<std::uint32_t>(self.shown.size());
    return sd_bus_reply_method_return(call, "u", id);
  }
  static int shownFolders(sd_bus_message* call, void* data, sd_bus_error*) {
    const char* folder = nullptr;
    sd_bus_message_enter_container(call, 'a', "s");
    while (sd_bus_message_read_basic(call, 's', &folder) > 0)
      static_cast<FakeDesktop*>(data)->folders.emplace_back(folder);
    return sd_bus_reply_method_return(call, "");
  }
  sd_bus* const bus_;
};

class NotifierTest : public testing::Test {
 protected:
  void SetUp() override {
    if (PrivateBus::isMissing()) GTEST_SKIP() << "there is no dbus-daemon (package dbus)";
    bus_.emplace();
    bus_->start();
    client_.emplace();
    desktop_.emplace(client_->bus());
    control_.setPending("/", {});
  }
  /// The mount comes to a desktop that shows notifications.
  void begin() {
    desktop_->begin();
    serve();
  }
  void serve() {
    service_.emplace(MountFacts{"/home/me/my files", "main", "1"}, control_);
    client_->waitForHosts(1);
    // What is so at the beginning has been told.
    for (int i = 0; i < 2000 && control_.callCount("pending / 100") == 0; ++i) pass();
    settle();
  }
  void pass() { client_->takeSignalsFor(std::chrono::milliseconds(10)); }
  void settle() { client_->takeSignalsFor(std::chrono::milliseconds(200)); }
  bool waitForShown(std::size_t count) {
    for (int i = 0; i < 2000 && desktop_->shown.size() < count; ++i) pass();
    return desktop_->shown.size() >= count;
  }
  /// Changes how the host is doing, and waits until that was looked at.
  void become(const host::HostStatus& status, host::PendingChanges pending) {
    control_.setStatus(status);
    control_.setPending("/", std::move(pending));
    const std::size_t looks = control_.callCount("pending / 100");
    control_.change({});
    for (int i = 0; i < 2000 && control_.callCount("pending / 100") == looks; ++i) pass();
    settle();
  }
  static host::PendingChange refused(const std::string& path, const std::string& reason) {
    host::PendingChange change = host::pendingSend(path, reason);
    change.isRefused = true;
    change.attempts = Notifier::kRefusals;
    return change;
  }

  std::optional<PrivateBus> bus_;
  std::optional<BusClient> client_;
  std::optional<FakeDesktop> desktop_;
  FakeHostControl control_;
  std::optional<DesktopService> service_;
};

TEST_F(NotifierTest, TellsOfEachConflictOnceInOneNotification) {
  begin();
  control_.change({{}, {"/docs/a (conflict <x>).txt"}});
  ASSERT_TRUE(waitForShown(1));
  EXPECT_EQ(desktop_->shown[0].replaced, 0U);
  EXPECT_THAT(desktop_->shown[0].body, HasSubstr("a (conflict &lt;x&gt;).txt"));
  control_.change({{}, {"/docs/a (conflict <x>).txt"}});
  client_->takeSignalsFor(std::chrono::milliseconds(800));
  EXPECT_EQ(desktop_->shown.size(), 1U);
  control_.change({{}, {"/b \xFF/other"}});
  ASSERT_TRUE(waitForShown(2));
  EXPECT_EQ(desktop_->shown[1].replaced, 1U);
  EXPECT_THAT(desktop_->shown[1].summary, HasSubstr("2 so far"));

  desktop_->click(1);
  desktop_->click(77);  // another program's
  for (int i = 0; i < 2000 && desktop_->folders.empty(); ++i) pass();
  EXPECT_THAT(desktop_->folders, ElementsAre("file:///home/me/my%20files/b%20%FF"));
}

TEST_F(NotifierTest, TellsOfRefusalsAgainOnlyAfterTheyWereOver) {
  begin();
  host::PendingChange change = refused("/docs/a", "no more space");
  change.attempts = Notifier::kRefusals - 1;
  become({}, {1, {change}});
  EXPECT_TRUE(desktop_->shown.empty());
  change.attempts = Notifier::kRefusals;
  become({}, {1, {change}});
  ASSERT_EQ(desktop_->shown.size(), 1U);
  EXPECT_THAT(desktop_->shown[0].summary, HasSubstr("\"a\" cannot be sent"));
  ++change.attempts;
  become({}, {1, {change}});
  EXPECT_EQ(desktop_->shown.size(), 1U);
  become({}, {});
  become({}, {1, {change}});
  EXPECT_EQ(desktop_->shown.size(), 2U);
}

TEST_F(NotifierTest, TellsOnceThatTheUserIsSignedOut) {
  begin();
  host::HostStatus status;
  status.isSignedOut = true;
  const host::PendingChange change = refused("/docs/a", "not signed in");
  become(status, {1, {change}});
  become(status, {1, {change}});
  ASSERT_EQ(desktop_->shown.size(), 1U);
  EXPECT_THAT(desktop_->shown[0].summary, HasSubstr("signed out"));
  become({}, {});
  become(status, {});
  EXPECT_EQ(desktop_->shown.size(), 2U);
}

TEST_F(NotifierTest, SaysOnceWhatToDoAboutWhatIsForbidden) {
  begin();
  host::PendingChange change = refused("/docs/a", "not in this folder");
  change.isForbidden = true;
  become({}, {1, {change}});
  become({}, {1, {change}});
  ASSERT_EQ(desktop_->shown.size(), 1U);
  EXPECT_THAT(desktop_->shown[0].body, HasSubstr("not in this folder. You may not change this"));
  become({}, {1, {refused("/docs/b", "no more space")}});
  ASSERT_EQ(desktop_->shown.size(), 2U);
  EXPECT_EQ(desktop_->shown[1].body, "no more space. It exists on this machine alone until then.");
}

TEST_F(NotifierTest, TellsOnceOfConflictsFromBefore) {
  host::HostStatus status;
  status.conflictCount = 3;
  status.conflicts = {"/docs/a (conflict)", "/docs/b (conflict)", "/docs/c (conflict)"};
  control_.setStatus(status);
  begin();
  ASSERT_TRUE(waitForShown(1));
  EXPECT_THAT(desktop_->shown[0].summary, HasSubstr("not settled"));
  EXPECT_THAT(desktop_->shown[0].body, HasSubstr("\"c (conflict)\" and 2 more lie beside"));
  // None of them has arisen, whoever says so; nor is anything said again as long as the mount is there.
  control_.change({{}, {"/docs/b (conflict)"}});
  become(status, {});
  status.conflictCount = 4;
  status.conflicts.emplace_back("/docs/d (conflict)");  // made elsewhere
  become(status, {});
  EXPECT_EQ(desktop_->shown.size(), 1U);
  // The next start reminds of what is left.
  service_.reset();
  client_->waitForHosts(0);
  status.conflictCount = 1;
  status.conflicts = {"/docs/a (conflict)"};
  control_.setStatus(status);
  serve();
  ASSERT_TRUE(waitForShown(2));
  EXPECT_THAT(desktop_->shown[1].body, HasSubstr("\"a (conflict)\" lies beside"));
}

TEST_F(NotifierTest, WaitsForWhoShowsThem) {
  host::HostStatus status;
  status.conflictCount = 1;
  status.conflicts = {"/docs/a (conflict)"};
  control_.setStatus(status);
  serve();
  become(status, {1, {refused("/docs/a", "no more space")}});
  become(status, {});  // which is over
  EXPECT_TRUE(desktop_->shown.empty());
  desktop_->begin();
  ASSERT_TRUE(waitForShown(1));
  settle();
  ASSERT_EQ(desktop_->shown.size(), 1U);
  EXPECT_THAT(desktop_->shown[0].summary, HasSubstr("not settled"));
  // What was shown is not shown again; the next one begins with numbers of its own.
  desktop_->end();
  desktop_->begin();
  settle();
  ASSERT_EQ(desktop_->shown.size(), 1U);
  control_.change({{}, {"/docs/b (conflict)"}});
  ASSERT_TRUE(waitForShown(2));
  EXPECT_EQ(desktop_->shown[1].replaced, 0U);
}

TEST_F(NotifierTest, ShowsTheStatusAndTriesAgain) {
  begin();
  host::HostStatus status;
  status.isStoreReachable = true;
  status.heldDeletionCount = 30;
  status.conflictCount = 1;
  const host::PendingChange change = refused("/docs/a", "no more <space>");
  become(status, {2, {change}});
  ASSERT_EQ(desktop_->shown.size(), 1U);
  EXPECT_THAT(desktop_->shown[0].actions, ElementsAre("default", "try-again", "status"));
  EXPECT_EQ(control_.callCount("tryNow /"), 0U);
  desktop_->click(1, "try-again");
  for (int i = 0; i < 2000 && control_.callCount("tryNow /") == 0; ++i) pass();
  EXPECT_EQ(control_.callCount("tryNow /"), 1U);
  EXPECT_TRUE(desktop_->folders.empty());

  const auto clicked = std::chrono::steady_clock::now();
  desktop_->click(1, "status");
  ASSERT_TRUE(waitForShown(2));
  EXPECT_LT(std::chrono::steady_clock::now() - clicked, std::chrono::milliseconds(1500));
  EXPECT_EQ(desktop_->shown[1].replaced, 0U);
  EXPECT_EQ(desktop_->shown[1].summary, "Kestrune: /home/me/my files");
  EXPECT_EQ(desktop_->shown[1].body,
            "2 changes are not at the store yet.\n1 version lies beside the store's.\n"
            "30 deletions are held back\n/docs/a: no more &lt;space&gt;");
  EXPECT_THAT(desktop_->shown[1].actions, ElementsAre("default"));
  become(status, {2, {change}});
  EXPECT_EQ(desktop_->shown.size(), 2U);  // once for each click
}

}  // namespace

}  // namespace kestrune::desktop::test
