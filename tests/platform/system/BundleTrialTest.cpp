#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>

#include "platform/system/BundleTrial.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/platform/system/BundlePath.h"

namespace corvid {
namespace {

using testing::AnyOf;
using testing::HasSubstr;

class BundleTrialTest : public testing::Test {
 protected:
  ~BundleTrialTest() override {
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left behind";
    EXPECT_EQ(errno, ECHILD);
  }
  static std::optional<std::string> tried(
      const std::string& bundle, std::chrono::milliseconds patience = std::chrono::seconds(20)) {
    const BundleTrial trial = tryBundle(
        bundlePath(bundle), "MetrixAdaptor", [] { return true; }, patience);
    if (trial.fault)
      EXPECT_EQ(trial.passed, std::nullopt);
    else
      EXPECT_EQ(trial.passed, FileStamp::of(bundlePath(bundle)));
    return trial.fault;
  }

  CapturedLog log;
};

TEST_F(BundleTrialTest, ASoundBundleDoesWell) { EXPECT_EQ(tried("Sound"), std::nullopt); }

TEST_F(BundleTrialTest, AnAbsentBundleIsNotTried) {
  bool entered = false;
  const BundleTrial trial =
      tryBundle(bundlePath("Absent"), "MetrixAdaptor", [&] { return entered = true; });
  EXPECT_EQ(trial.passed, std::nullopt);
  EXPECT_EQ(trial.fault, std::nullopt);
  EXPECT_FALSE(entered);
}

TEST_F(BundleTrialTest, WhatIsMissingShowsWhenEventsAreSent) {
  for (const char* bundle : {"LacksTheClass", "MakesNothing", "LacksTheOperation", "Throws"})
    EXPECT_EQ(tried(bundle), std::nullopt) << bundle;
}

TEST_F(BundleTrialTest, ABundleThatCrashesAtLoadCrashesAlone) {
  // With a sanitizer built in it is the sanitizer that ends the process.
  EXPECT_THAT(tried("CrashesAtLoad").value_or("did well"),
              AnyOf(HasSubstr("it crashed with signal 6"), HasSubstr("it ended its process")));
}

TEST_F(BundleTrialTest, ABundleThatCrashesWhenAnObjectIsMadeCrashesAlone) {
  EXPECT_THAT(tried("CrashesAtCreate").value_or("did well"),
              AnyOf(HasSubstr("it crashed with signal 6"), HasSubstr("it ended its process")));
}

TEST_F(BundleTrialTest, ABundleThatThrowsAtLoadIsNotLoaded) {
  EXPECT_THAT(tried("ThrowsAtLoad").value_or("did well"),
              AnyOf(HasSubstr("it could not be loaded"), HasSubstr("it crashed with signal 6")));
}

TEST_F(BundleTrialTest, ABundleThatEndsItsProcessDoesNotPass) {
  EXPECT_EQ(tried("EndsTheProcessAtLoad"), "it ended its process with status 0");
}

TEST_F(BundleTrialTest, ABundleThatHangsIsGivenUp) {
  EXPECT_EQ(tried("HangsAtLoad", std::chrono::milliseconds(300)), "it was not done after 300 ms");
}

TEST_F(BundleTrialTest, ABundleThatCannotBeUsedDoesNotPassAndTheReasonIsTheFault) {
  EXPECT_EQ(tried("IsOfAnotherVersion"),
            "it could not be loaded: it is made for version 999 of the interface, this is 1");
  EXPECT_THAT(tried("NoBundle").value_or("did well"),
              AllOf(HasSubstr("it could not be loaded: "), HasSubstr("file too short")));
  EXPECT_TRUE(log.lines().empty());
}

TEST_F(BundleTrialTest, NothingIsLoadedOutsideTheSandbox) {
  EXPECT_EQ(tryBundle(bundlePath("CrashesAtLoad"), "MetrixAdaptor", [] { return false; }).fault,
            "the sandbox to try it in could not be entered");
}

}  // namespace
}  // namespace corvid
