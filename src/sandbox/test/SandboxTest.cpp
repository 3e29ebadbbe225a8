// What the confined program can do and what not, tried by a program of ours from inside; and without confinement, where
// what is forbidden must succeed, so that a refusal is known to be the sandbox's.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "platform/values/NSError.h"
#include "sandbox/BubblewrapTrial.h"
#include "sandbox/Landlock.h"
#include "sandbox/test/Stage.h"

namespace kestrune::sandbox::test {

namespace {

std::vector<std::string> namesOf(std::initializer_list<const std::vector<Attempt>*> lists) {
  std::vector<std::string> names;
  for (const auto* list : lists) {
    for (const Attempt& attempt : *list) names.emplace_back(attempt.name);
  }
  return names;
}

const char* textOf(Confined confined) {
  switch (confined) {
    case Confined::bubblewrapped:
      return "Bubblewrapped";
    case Confined::alone:
      return "Alone";
    case Confined::late:
      return "Late";
    case Confined::inBubblewrap:
      return "InBubblewrap";
    case Confined::byLandlock:
      return "ByLandlock";
    case Confined::byFilter:
      return "ByFilter";
    case Confined::not_:
      return "Not";
  }
}

/// Why this machine cannot confine so; nothing if it can.
std::optional<std::string> whyNot(Confined confined, const Stage& stage) {
  const bool needsLandlock = confined != Confined::byFilter && confined != Confined::inBubblewrap;
  if (needsLandlock && landlockVersion() == 0) return "this kernel has no Landlock";
  if (confined == Confined::bubblewrapped || confined == Confined::inBubblewrap) {
    return whyNoBubblewrap(rulesFor(stage.paths()));
  }
  return std::nullopt;
}

using Parameter = std::tuple<std::string, Confined>;

std::string nameOf(const testing::TestParamInfo<Parameter>& info) {
  return std::get<0>(info.param) + textOf(std::get<1>(info.param));
}

std::string reported(const Stage::Outcome& outcome) {
  return "status " + std::to_string(outcome.status) + ", " +
         (outcome.failure ? platform::errnoText(*outcome.failure) : "no answer") + " " +
         outcome.errors;
}

class SandboxTest : public testing::TestWithParam<Parameter> {
 protected:
  void SetUp() override {
    const auto reason = whyNot(std::get<1>(GetParam()), stage_);
    if (reason) GTEST_SKIP() << *reason;
  }
  Stage::Outcome run() { return stage_.run(std::get<0>(GetParam()), std::get<1>(GetParam())); }

  Stage stage_;
};

// --- Forbidden: what a system without permission, without the thing, or without the call answers.

class ForbiddenTest : public SandboxTest {};

TEST_P(ForbiddenTest, IsRefused) {
#ifdef KESTRUNE_SANITIZED
  if (GetParam() == Parameter("SeeHostProcess", Confined::alone))
    GTEST_SKIP() << "the sanitizers need /proc, and without a name space it is everybody's";
#endif
  const auto outcome = run();
  RecordProperty("answer", platform::errnoText(outcome.failure.value_or(0)));
  static const std::set<int> kRefusals = {EPERM, EACCES, ENOENT, ENOSYS, EROFS, EBADF, EXDEV};
  EXPECT_TRUE(kRefusals.contains(outcome.failure.value_or(0))) << reported(outcome);
  EXPECT_EQ(outcome.errors, "");
}

INSTANTIATE_TEST_SUITE_P(
    Sandbox, ForbiddenTest,
    testing::Combine(testing::ValuesIn(namesOf({&forbiddenWithFiles(), &forbiddenWithOthers(),
                                                &forbiddenWithKernel()})),
                     testing::Values(Confined::bubblewrapped, Confined::alone)),
    nameOf);

/// Whether this process may do what a system's root may: in a container it may not.
bool isUnlimited() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> held{};
  if (::geteuid() != 0 || ::syscall(SYS_capget, &header, held.data()) != 0) return false;
  return (held[0].effective & (1U << CAP_SYS_ADMIN)) != 0;
}

// user_namespaces(7): whose root is another than that of its mounts gets EPERM.
bool isInChangedRoot() {
  struct statx root {};
  return ::statx(AT_FDCWD, "/", 0, STATX_BASIC_STATS, &root) == 0 &&
         (root.stx_attributes_mask & STATX_ATTR_MOUNT_ROOT) != 0 &&
         (root.stx_attributes & STATX_ATTR_MOUNT_ROOT) == 0;
}

class UnconfinedTest : public testing::TestWithParam<std::string> {};

TEST_P(UnconfinedTest, Succeeds) {
  Stage stage;
  const auto outcome = stage.run(GetParam(), Confined::not_);
  if (outcome.failure == ENOSYS) GTEST_SKIP() << "this kernel does not have the call";
  if (outcome.failure == EPERM && GetParam() == "MakeUserNamespace" && isInChangedRoot())
    GTEST_SKIP() << "in a changed root nobody can";
  if (outcome.failure == EPERM || outcome.failure == EACCES) {
    if (!isUnlimited()) GTEST_SKIP() << "this user cannot do it anyway";
  }
  EXPECT_EQ(outcome.failure, 0) << reported(outcome);
}

INSTANTIATE_TEST_SUITE_P(Sandbox, UnconfinedTest,
                         testing::ValuesIn(namesOf({&forbiddenWithFiles(), &forbiddenWithOthers(),
                                                    &forbiddenWithKernel()})),
                         [](const auto& info) { return info.param; });

// --- What one layer refuses by itself, so that none leans on another without our knowing

struct Layer {
  Confined confined;
  std::vector<const char*> refused;
};

const Layer kInBubblewrap = {Confined::inBubblewrap,
                             {"ReadKeyInHome",
                              "ListHomes",
                              "ListRootsHome",
                              "ReadPasswords",
                              "ReadContentsOfReplica",
                              "WriteTmp",
                              "WriteVarTmp",
                              "WriteDevices",
                              "WriteBesideShared",
                              "WriteBesideOutgoing",
                              "WriteIntoOutgoing",
                              "ChangeOutgoing",
                              "RemoveOutgoing",
                              "MoveOutOfShared",
                              "MoveIntoShared",
                              "OverwriteOutside",
                              "TruncateOutside",
                              "ReadThroughLinkInShared",
                              "ReadWithoutPermission",
                              "ChangeModeOutside",
                              "ChangeModeOfOpenFile",
                              "ChangeOwnerOutside",
                              "ChangeTimesOutside",
                              "SetAttributeOutside",
                              "ConnectToControlSocket",
                              "MakeRawSocket",
                              "MakePacketSocket",
                              "TraceHost",
                              "ReadHostMemory",
                              "SignalHost",
                              "SignalThreadOfHost",
                              "OpenHostProcess",
                              "SeeHostProcess",
                              "ReadHostEnvironment",
                              "ReadHostVariable",
                              "RenameMachine",
                              "Mount",
                              "ChangeRoot",
                              "MakeMountNamespace"}};

const Layer kByLandlock = {Confined::byLandlock,
                           {"ReadKeyInHome",
                            "ListHome",
                            "ListHomes",
                            "ListRootsHome",
                            "ReadPasswords",
                            "ListSystemSettings",
                            "ReadContentsOfReplica",
                            "WriteTmp",
                            "WriteVarTmp",
                            "WriteDevices",
                            "WriteBesideShared",
                            "WriteBesideOutgoing",
                            "WriteIntoOutgoing",
                            "ChangeOutgoing",
                            "RemoveOutgoing",
                            "MoveOutOfShared",
                            "MoveIntoShared",
                            "OverwriteOutside",
                            "ReadThroughLinkInShared",
                            "MakeSymbolicLink",
                            "MakeHardLink",
                            "MakeFifo",
                            "ExecuteShell",
                            "TraceHost",
                            "ReadHostMemory",
                            "Mount"}};

const Layer kByFilter = {Confined::byFilter,
                         {"TruncateOutside",
                          "MakeSymbolicLink",
                          "MakeHardLink",
                          "ChangeModeOutside",
                          "ChangeModeOfOpenFile",
                          "ChangeOwnerOutside",
                          "ChangeTimesOutside",
                          "SetAttributeOutside",
                          "MakeFifo",
                          "WatchHome",
                          "ConnectToControlSocket",
                          "ConnectToAbstractSocket",
                          "ExecuteShell",
                          "TraceHost",
                          "ReadHostMemory",
                          "SignalHost",
                          "SignalParent",
                          "SignalThreadOfHost",
                          "SignalHostByDescriptor",
                          "SignalHostBySocket",
                          "OpenHostProcess",
                          "RenameMachine",
                          "Mount",
                          "ChangeRoot",
                          "MakeUserNamespace",
                          "MakeMountNamespace"}};

class LayerTest : public testing::TestWithParam<Layer> {};

TEST_P(LayerTest, RefusesByItself) {
  Stage stage;
  if (const auto reason = whyNot(GetParam().confined, stage)) GTEST_SKIP() << *reason;
  static const std::set<int> kRefusals = {EPERM, EACCES, ENOENT, EROFS, EXDEV, ESRCH, EINVAL};
  for (const char* attempt : GetParam().refused) {
    const auto outcome = stage.run(attempt, GetParam().confined);
    EXPECT_TRUE(kRefusals.contains(outcome.failure.value_or(0)))
        << attempt << ": " << reported(outcome);
  }
}

INSTANTIATE_TEST_SUITE_P(Sandbox, LayerTest, testing::Values(kInBubblewrap, kByLandlock, kByFilter),
                         [](const auto& info) { return textOf(info.param.confined); });

// --- Needed

class NeededTest : public SandboxTest {};

TEST_P(NeededTest, Works) {
  const auto outcome = run();
  const std::string attempt = std::get<0>(GetParam());
  if (outcome.failure != 0 && attempt == "ResolveLocalhost" &&
      stage_.run(attempt, Confined::not_).failure != 0)
    GTEST_SKIP() << "this machine does not know localhost";
  EXPECT_EQ(outcome.failure, 0) << reported(outcome);
  EXPECT_EQ(outcome.errors, "");
  if (std::get<0>(GetParam()) == "TalkToHost") EXPECT_EQ(stage_.heard(), "pong");
}

INSTANTIATE_TEST_SUITE_P(Sandbox, NeededTest,
                         testing::Combine(testing::ValuesIn(namesOf({&needed()})),
                                          testing::Values(Confined::bubblewrapped, Confined::alone,
                                                          Confined::not_)),
                         nameOf);

// --- Ends

class CrashTest : public SandboxTest {};

TEST_P(CrashTest, EndsByItsSignal) {
  const auto [attempt, confined] = GetParam();
  const int expected = attempt == "Abort" ? SIGABRT : SIGSEGV;
  const auto outcome = run();
  if (confined == Confined::bubblewrapped) {
    ASSERT_TRUE(WIFEXITED(outcome.status)) << reported(outcome);
    EXPECT_EQ(WEXITSTATUS(outcome.status), 128 + expected) << reported(outcome);
  } else {
    ASSERT_TRUE(WIFSIGNALED(outcome.status)) << reported(outcome);
    EXPECT_EQ(WTERMSIG(outcome.status), expected) << reported(outcome);
    EXPECT_FALSE(confined == Confined::alone && WCOREDUMP(outcome.status));
  }
}

INSTANTIATE_TEST_SUITE_P(Sandbox, CrashTest,
                         testing::Combine(testing::ValuesIn(namesOf({&crashes()})),
                                          testing::Values(Confined::bubblewrapped, Confined::alone,
                                                          Confined::not_)),
                         nameOf);

// --- Threads that ran before

TEST(LateConfinementTest, BindsEarlierThreadsByTheFilterAloneAndSaysSo) {
#ifdef KESTRUNE_SANITIZED
  GTEST_SKIP() << "the sanitizers' own thread cannot be told from others";
#endif
  Stage stage;
  if (const auto reason = whyNot(Confined::late, stage)) GTEST_SKIP() << *reason;
  const auto forked = stage.run("Fork", Confined::late);
  EXPECT_EQ(forked.failure, EPERM) << reported(forked);
  const auto read = stage.run("ReadKeyInHome", Confined::late);
  EXPECT_EQ(read.failure, 0) << "the report would be wrong";
  EXPECT_EQ(read.errors, "not enforced: Landlock does not bind threads that ran before it\n");
}

// --- A replica in the shared directory

class CoveredReplicaTest : public testing::TestWithParam<Layout> {
 protected:
  void SetUp() override {
    const auto reason = whyNot(Confined::bubblewrapped, stage_);
    if (reason) GTEST_SKIP() << *reason;
  }
  Stage stage_{GetParam()};
};

INSTANTIATE_TEST_SUITE_P(Sandbox, CoveredReplicaTest,
                         testing::Values(Layout::inShared, Layout::inSharedThroughLink),
                         [](const auto& info) {
                           return info.param == Layout::inShared ? "Plain" : "ThroughLink";
                         });

TEST_P(CoveredReplicaTest, BubblewrapKeepsItOutOfReach) {
  for (const char* attempt : {"ReadContentsOfReplica", "WriteBesideOutgoing", "WriteIntoOutgoing",
                              "ChangeOutgoing", "RemoveOutgoing"}) {
    const auto outcome = stage_.run(attempt, Confined::bubblewrapped);
    EXPECT_TRUE(outcome.failure == ENOENT || outcome.failure == EROFS || outcome.failure == EXDEV)
        << attempt << ": " << reported(outcome);
    EXPECT_EQ(stage_.run(attempt, Confined::not_).failure, 0) << attempt;
  }
}

TEST_P(CoveredReplicaTest, WhatIsNeededWorks) {
  for (const char* attempt :
       {"ReadOutgoing", "ReplaceInShared", "ReplaceInTemporary", "MakeFoldersInTemporary"}) {
    const auto outcome = stage_.run(attempt, Confined::bubblewrapped);
    EXPECT_EQ(outcome.failure, 0) << attempt << ": " << reported(outcome);
  }
}

TEST_P(CoveredReplicaTest, WithoutBubblewrapTheReportSaysWhatIsOpen) {
  const auto outcome = stage_.run("ReadContentsOfReplica", Confined::alone);
  EXPECT_EQ(outcome.failure, 0) << "the report would be wrong";
  EXPECT_NE(outcome.errors.find("not enforced: the replica lies in the shared directory"),
            std::string::npos)
      << outcome.errors;
}

}  // namespace

}  // namespace kestrune::sandbox::test
