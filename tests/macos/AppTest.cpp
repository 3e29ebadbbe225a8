// The containing application: what its commands ask of the system, write, print and return.
#include "macos/app/App.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>

#include "platform/StandIn.h"
#include "platform/values/Json.h"
#include "tests/support/IsolatedStorage.h"

namespace kestrune::macos {
namespace {

using standin::ManagerCall;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

struct AppTest : testing::Test {
  int run(std::vector<const char*> arguments, const std::string& input = "") {
    arguments.insert(arguments.begin(), "Kestrune");
    std::istringstream in(input);
    std::ostringstream out, err;
    const int code = runApp(static_cast<int>(arguments.size()), arguments.data(), in, out, err);
    output = out.str();
    errors = err.str();
    return code;
  }

  support::IsolatedStorage storage;
  std::string output;
  std::string errors;
};

TEST_F(AppTest, ConfigureWritesWhatTheExtensionReads) {
  EXPECT_EQ(run({"configure", "--url", "http://127.0.0.1:1/", "--token-file", "-"}, "secret\n"), 0)
      << errors;
  const auto file = storage.shared() / "config.json";
  EXPECT_EQ(platform::Json::parse(support::contentsOf(file)),
            (platform::Json{{"apiURL", "http://127.0.0.1:1"}, {"token", "secret"}}));
  struct stat attributes {};
  ASSERT_EQ(::stat(file.c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 0777U, 0600U);
  EXPECT_THAT(output + errors, testing::Not(HasSubstr("secret")));
}

TEST_F(AppTest, AddAndRemoveAskTheSystemForTheDomain) {
  EXPECT_EQ(run({"add"}), 0) << errors;
  EXPECT_EQ(run({"remove"}), 0) << errors;
  EXPECT_THAT(standin::managerCalls(), ElementsAre(ManagerCall{"main", "add", "Kestrune"},
                                                   ManagerCall{"main", "remove", "Kestrune"}));
}

TEST_F(AppTest, RefreshWritesANewTokenAndSignalsTheWorkingSet) {
  const auto token = storage.shared() / "invalidation-token.txt";
  EXPECT_EQ(run({"refresh"}), 0) << errors;
  const std::string first = support::contentsOf(token);
  EXPECT_EQ(run({"refresh"}), 0) << errors;
  EXPECT_NE(support::contentsOf(token), first);
  const ManagerCall signal{"main", "signal", "NSFileProviderWorkingSetContainerItemIdentifier"};
  EXPECT_THAT(standin::managerCalls(), ElementsAre(signal, signal));
}

TEST_F(AppTest, ARefusalOfTheSystemIsToldWithWhatToDo) {
  standin::failCallsAbout("Kestrune", -2014, "The extension is not registered.\n");
  EXPECT_EQ(run({"add"}), 1);
  EXPECT_THAT(errors, HasSubstr("The folder could not be added: The extension is not "
                                "registered.\\n (NSFileProviderErrorDomain -2014). "));
  EXPECT_THAT(errors, HasSubstr("System Settings"));
  EXPECT_EQ(run({"remove"}), 1);
  EXPECT_THAT(errors, HasSubstr("The folder could not be removed: "));
  EXPECT_THAT(output, IsEmpty());
}

TEST_F(AppTest, RefreshWithoutADomainSaysToAddIt) {
  standin::setHasManagers(false);
  EXPECT_EQ(run({"refresh"}), 1);
  EXPECT_THAT(errors, HasSubstr("Kestrune add"));
}

TEST_F(AppTest, WrongUsageIsTwo) {
  EXPECT_EQ(run({}), 2);
  EXPECT_EQ(run({"mount"}), 2);
  EXPECT_EQ(run({"configure", "--url", "http://127.0.0.1"}), 2);
  EXPECT_EQ(run({"configure", "--url", "not an address", "--token-file", "-"}, "t"), 1);
  EXPECT_EQ(run({"--help"}), 0);
  EXPECT_THAT(output, HasSubstr("configure"));
  EXPECT_THAT(standin::managerCalls(), IsEmpty());
}

}  // namespace
}  // namespace kestrune::macos
