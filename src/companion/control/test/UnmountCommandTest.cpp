#include "companion/control/UnmountCommand.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "companion/configuration/CommandError.h"
#include "host/control/test/FakeHostControl.h"

namespace kestrune {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class UnmountCommandTest : public testing::Test {
 protected:
  UnmountCommandTest() {
    host::ControlOptions options = served.options();
    options.mountPoint = "/mnt/k";
    options.replica = "/data/replica";
    served.end();
    served.server = std::make_unique<host::ControlServer>(options, served.control);
    served.control.setPending("/", {});
  }
  /// The failure; this process is the host, so that it never ends.
  std::string failure(UnmountOptions options) {
    options.patience = std::chrono::seconds(0);
    std::ostringstream output;
    try {
      unmountHost(HostFinder({served.file().parent_path()}, ""), options, output);
    } catch (const CommandError& error) {
      return error.what();
    }
    ADD_FAILURE() << "no error";
    return {};
  }
  std::size_t ends() { return served.control.callCount("end"); }

  host::ControlledHost served;
};

TEST_F(UnmountCommandTest, RefusesWhereChangesAreNotAtTheStore) {
  served.control.setPending("/", {2, {host::pendingSend("/a", "the server is full")}});
  EXPECT_THAT(failure({}),
              AllOf(HasSubstr("'/mnt/k' stays mounted, because 2 changes are not at the store"),
                    HasSubstr("/a"), HasSubstr("the server is full"), HasSubstr("and 1 more"),
                    HasSubstr("kestrune sync --wait '/mnt/k'"),
                    HasSubstr("kestrune unmount --force '/mnt/k'"), HasSubstr("'/data/replica'")));
  EXPECT_EQ(ends(), 0U);
}

TEST_F(UnmountCommandTest, ForcedItEndsTheHostAllTheSame) {
  served.control.setPending("/", {1, {host::pendingSend("/a")}});
  EXPECT_THAT(failure({.isForced = true}),
              HasSubstr("has been asked to end and has not within 0 s"));
  EXPECT_EQ(ends(), 1U);
}

TEST_F(UnmountCommandTest, WithoutChangesItNeedsNoForce) {
  EXPECT_THAT(failure({}), Not(HasSubstr("stays mounted")));
  EXPECT_EQ(ends(), 1U);
}

TEST_F(UnmountCommandTest, WithoutAHostItSaysSo) {
  EXPECT_THAT(failure({.domainIdentifier = "other"}), HasSubstr("No host of the domain 'other'"));
  EXPECT_THAT(failure({.path = "/usr"}), HasSubstr("does not lie in a folder"));
}

}  // namespace
}  // namespace kestrune
