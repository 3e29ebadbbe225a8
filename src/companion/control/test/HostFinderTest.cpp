#include "companion/control/HostFinder.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "companion/configuration/CommandError.h"
#include "host/control/test/FakeHostControl.h"
#include "tests/support/IsolatedStorage.h"
#include "tests/support/ScopedEnvironment.h"

namespace kestrune {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;

template <class Work>
std::string refusalOf(const Work& work) {
  try {
    work();
  } catch (const CommandError& error) {
    return error.what();
  }
  return {};
}

TEST(ControlSocketFile, LiesInTheRuntimeDirectory) {
  const support::IsolatedStorage storage;
  const support::ScopedEnvironment runtime("XDG_RUNTIME_DIR", "/run/user/1000");
  EXPECT_THAT(controlSocketFiles("main"), ElementsAre(fs::path("/run/user/1000/kestrune/main.sock"),
                                                      storage.shared() / "control" / "main.sock"));
  EXPECT_THAT(controlFolders(),
              ElementsAre(fs::path("/run/user/1000/kestrune"), storage.shared() / "control"));
}

TEST(ControlSocketFile, LiesInTheSharedDirectoryWithoutOne) {
  const support::IsolatedStorage storage;
  for (const std::optional<std::string>& value : {std::optional<std::string>(), {"relative"}}) {
    const support::ScopedEnvironment runtime("XDG_RUNTIME_DIR", value);
    EXPECT_THAT(controlSocketFiles("main"),
                ElementsAre(storage.shared() / "control" / "main.sock"));
  }
}

TEST(ControlSocketFile, ADomainThatIsNoNameIsRefused) {
  const support::IsolatedStorage storage;
  for (const std::string& domain : {std::string(), std::string("../main"), std::string(250, 'x')}) {
    EXPECT_NE(refusalOf([&] { controlSocketFiles(domain); }), "") << domain;
  }
}

class HostFinderTest : public testing::Test {
 protected:
  HostFinderTest()
      : mountPoint(fs::canonical(directory.path()) / "mount"),
        finder({directory.path() / "none", directory.path() / "sockets"},
               "40 22 0:50 / " + mountPoint.string() + " rw - fuse.kestrune kestrune rw\n") {
    fs::create_directory(mountPoint);
  }

  std::unique_ptr<host::ControlServer> host(const std::string& domain, const fs::path& place,
                                            const std::string& folder = "sockets") {
    host::ControlOptions options;
    options.socketFile = directory.path() / folder / (domain + ".sock");
    options.domainIdentifier = domain;
    options.mountPoint = place;
    return std::make_unique<host::ControlServer>(options, control);
  }
  static std::string domainOf(host::ControlClient& client) {
    return client.ask(host::ControlRequest())["domain"];
  }

  support::TemporaryDirectory directory;
  const fs::path mountPoint;
  host::FakeHostControl control;
  const HostFinder finder;
};

TEST_F(HostFinderTest, TellsPathsFromTheMountPointDown) {
  EXPECT_EQ(finder.place(mountPoint).path, "/");
  EXPECT_EQ(finder.place(mountPoint.string() + "/").path, "/");
  EXPECT_EQ(finder.place(mountPoint / "a" / "b").path, "/a/b");
  EXPECT_EQ(finder.place(mountPoint.string() + "//a/./b/").path, "/a/b");
  EXPECT_EQ(finder.place(mountPoint.string() + "/a/../\xff b").path, "/\xff b");
  EXPECT_EQ(finder.place(mountPoint / "a").mountPoint, mountPoint);
}

TEST_F(HostFinderTest, FollowsLinksThatLeadThere) {
  fs::create_directory_symlink(mountPoint, directory.path() / "link");
  EXPECT_EQ(finder.place(directory.path() / "link" / "a").path, "/a");
  const fs::path before = fs::current_path();
  fs::current_path(mountPoint);
  EXPECT_EQ(finder.place("a").path, "/a");
  EXPECT_EQ(finder.place(".").path, "/");
  fs::current_path(before);
}

TEST_F(HostFinderTest, APathElsewhereIsRefused) {
  for (const std::string& path :
       {directory.path().string(), mountPoint.string() + "/../x", mountPoint.string() + "2"}) {
    EXPECT_THAT(refusalOf([&] { static_cast<void>(finder.place(path)); }),
                HasSubstr("does not lie in"))
        << path;
  }
  EXPECT_THAT(refusalOf([&] { static_cast<void>(finder.place("")); }), HasSubstr("Cannot find ''"));
}

TEST_F(HostFinderTest, FindsTheHostOfADomainAndOfAMount) {
  const auto other = host("other", "/elsewhere");
  const auto main = host("main", mountPoint);
  EXPECT_EQ(domainOf(*finder.ofDomain("main")), "main");
  EXPECT_EQ(domainOf(*finder.ofDomain("other")), "other");
  EXPECT_EQ(domainOf(*finder.ofMount(mountPoint)), "main");
}

TEST_F(HostFinderTest, OfTwoHostsOfADomainItFindsTheOneWithItsOwnData) {
  const auto first = host("main", "/elsewhere", "none");
  const auto own = host("main", mountPoint);
  EXPECT_EQ(finder.ofDomain("main")->ask(host::ControlRequest())["mountPoint"],
            mountPoint.string());
  EXPECT_EQ(finder.ofMount("/elsewhere")->ask(host::ControlRequest())["mountPoint"], "/elsewhere");
}

TEST_F(HostFinderTest, SaysWhereThereIsNone) {
  const auto other = host("other", "/elsewhere");
  directory.write("sockets/dead.sock", "");
  EXPECT_THAT(refusalOf([&] { finder.ofDomain("main"); }), HasSubstr("kestrune mount"));
  EXPECT_THAT(refusalOf([&] { finder.ofMount(mountPoint); }), HasSubstr("does not answer"));
}

}  // namespace
}  // namespace kestrune
