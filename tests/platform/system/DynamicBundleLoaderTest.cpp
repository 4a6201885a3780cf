#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gnu/libc-version.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/data/PropertyList.h"
#include "platform/system/DynamicBundleLoader.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/platform/system/BundlePath.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::string_view forward = "sendMessageWithMethod:respCode:dict:";

class DynamicBundleLoaderTest : public testing::Test {
 protected:
  static DynamicBundleLoader loaderOf(const std::string& bundle) {
    return {bundlePath(bundle), FileStamp::of(bundlePath(bundle))};
  }
  // An adaptor of a bundle that has been loaded.
  std::unique_ptr<BundleObject> adaptorOf(const std::string& bundle) {
    const auto loaded = loaderOf(bundle).performanceBundle();
    const BundleClass* const type = loaded ? loaded->classNamed("MetrixAdaptor") : nullptr;
    return type ? type->create() : nullptr;
  }
  template <class Function>
  static Function functionOf(const std::string& bundle, const char* name) {
    void* const library = dlopen(bundlePath(bundle).c_str(), RTLD_NOW | RTLD_NOLOAD);
    return library ? reinterpret_cast<Function>(dlsym(library, name)) : nullptr;
  }
  std::vector<std::string> errors() { return log.texts(LogLevel::error); }

  CapturedLog log;
};

TEST_F(DynamicBundleLoaderTest, AnObjectPerformsWithThePayloadAsABinaryPropertyList) {
  const auto adaptor = adaptorOf("Sound");
  ASSERT_NE(adaptor, nullptr);
  EXPECT_EQ(adaptor->description(), "<MetrixAdaptor>");
  EXPECT_TRUE(adaptor->respondsTo(forward));
  EXPECT_FALSE(adaptor->respondsTo("sendMessage"));
  const Dictionary payload{{"text", "\xc3\xa9"}, {"number", -7}, {"list", Array{true, 2.5}}};
  adaptor->perform(forward, 65535, 3, &payload);
  const auto lastCall = functionOf<const std::string* (*)()>("Sound", "bundleLastCall");
  ASSERT_NE(lastCall, nullptr);
  const std::string expectedStart = "sendMessageWithMethod:respCode:dict: 65535 3 ";
  ASSERT_EQ(lastCall()->substr(0, expectedStart.size()), expectedStart);
  const auto received = parsePropertyList(lastCall()->substr(expectedStart.size()));
  ASSERT_TRUE(received);
  EXPECT_EQ(received.value(), Value(payload));
  adaptor->perform(forward, 1, 2, nullptr);
  EXPECT_EQ(*lastCall(), "sendMessageWithMethod:respCode:dict: 1 2 none");
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(DynamicBundleLoaderTest, AnObjectIsDestroyedWithItsOwnerAndTheBundleStays) {
  const auto first = adaptorOf("Sound");
  const auto alive = functionOf<int (*)()>("Sound", "bundleObjectsAlive");
  ASSERT_NE(alive, nullptr);
  const int before = alive();
  {
    const auto second = adaptorOf("Sound");
    EXPECT_EQ(alive(), before + 1);
  }
  EXPECT_EQ(alive(), before);
}

TEST_F(DynamicBundleLoaderTest, OneLoaderLoadsOnce) {
  DynamicBundleLoader loader = loaderOf("Sound");
  const auto bundle = loader.performanceBundle();
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(loader.performanceBundle(), bundle);
  EXPECT_NE(bundle->classNamed("Another"), nullptr);
  EXPECT_EQ(bundle->classNamed("Absent"), nullptr);
}

TEST_F(DynamicBundleLoaderTest, AnAbsentBundleIsNothingToTalkAbout) {
  EXPECT_EQ(loaderOf("Absent").performanceBundle(), nullptr);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(DynamicBundleLoaderTest, OneThatMustNotBeUsedIsNotLoaded) {
  EXPECT_EQ(DynamicBundleLoader(bundlePath("CrashesAtLoad"), std::nullopt).performanceBundle(),
            nullptr);
  EXPECT_THAT(errors(), IsEmpty());
}

class ReplacedBundles : public DynamicBundleLoaderTest {
 protected:
  void install(const std::string& bundle) {
    std::filesystem::copy_file(bundlePath(bundle), path + ".new");
    std::filesystem::rename(path + ".new", path);
  }
  void expectOneWarning() {
    EXPECT_THAT(log.texts(LogLevel::warning),
                ElementsAre("Bundle: " + path +
                            " is not the one that was tried at the start; "
                            "start corvidd anew to use it"));
  }

  const ScratchFolder folder;
  const std::string path = folder.path("Bundle.so");
};

TEST_F(ReplacedBundles, OneThatCameLaterIsNotLoaded) {
  DynamicBundleLoader loader(path, FileStamp::of(path));
  EXPECT_EQ(loader.performanceBundle(), nullptr);
  install("CrashesAtLoad");
  EXPECT_EQ(loader.performanceBundle(), nullptr);
  EXPECT_EQ(loader.performanceBundle(), nullptr);
  expectOneWarning();
}

TEST_F(ReplacedBundles, OneInThePlaceOfTheOneThatWasTriedIsNotLoaded) {
  install("Sound");
  DynamicBundleLoader loader(path, FileStamp::of(path));
  install("CrashesAtLoad");
  EXPECT_EQ(loader.performanceBundle(), nullptr);
  EXPECT_EQ(loader.performanceBundle(), nullptr);
  expectOneWarning();
}

TEST_F(ReplacedBundles, OneThatWasWrittenAnewIsNotLoaded) {
  install("Sound");
  DynamicBundleLoader loader(path, FileStamp::of(path));
  std::filesystem::copy_file(bundlePath("CrashesAtLoad"), path,
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_EQ(loader.performanceBundle(), nullptr);
  expectOneWarning();
}

TEST_F(ReplacedBundles, OneThatIsGoneIsNothingToTalkAbout) {
  install("Sound");
  DynamicBundleLoader loader(path, FileStamp::of(path));
  std::filesystem::remove(path);
  EXPECT_EQ(loader.performanceBundle(), nullptr);
  EXPECT_THAT(log.lines(), IsEmpty());
}

struct UnusableBundle {
  const char* name;
  const char* reason;
};
class UnusableBundles : public DynamicBundleLoaderTest,
                        public testing::WithParamInterface<UnusableBundle> {};

TEST_P(UnusableBundles, GiveNothingAndSayWhy) {
  DynamicBundleLoader loader = loaderOf(GetParam().name);
  EXPECT_EQ(loader.performanceBundle(), nullptr);
  EXPECT_THAT(errors(),
              ElementsAre(AllOf(HasSubstr("Bundle: cannot use " + bundlePath(GetParam().name)),
                                HasSubstr(GetParam().reason))));
}
INSTANTIATE_TEST_SUITE_P(
    All, UnusableBundles,
    testing::Values(UnusableBundle{"NoBundle", "file too short"},
                    UnusableBundle{"IsOfAnotherVersion", "version 999 of the interface, this is 1"},
                    UnusableBundle{"LacksAFunction", "class 1 lacks a name or a function"},
                    UnusableBundle{"TooManyClasses", "table of classes cannot be used"}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(DynamicBundleLoaderTest, ALibraryThatIsNoBundleIsSaidToBeNone) {
  Dl_info library{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&gnu_get_libc_version), &library), 0);
  DynamicBundleLoader loader(library.dli_fname, FileStamp::of(library.dli_fname));
  EXPECT_EQ(loader.performanceBundle(), nullptr);
  EXPECT_THAT(errors(), ElementsAre(HasSubstr("undefined symbol: corvid_bundle")));
}

TEST_F(DynamicBundleLoaderTest, AClassThatMakesNothingGivesNoObject) {
  EXPECT_EQ(adaptorOf("MakesNothing"), nullptr);
}

TEST_F(DynamicBundleLoaderTest, AnAbsentClassGivesNoObject) {
  EXPECT_EQ(adaptorOf("LacksTheClass"), nullptr);
}

TEST_F(DynamicBundleLoaderTest, WhatABundleThrowsIsLoggedAndGoesNoFurther) {
  auto adaptor = adaptorOf("Throws");
  ASSERT_NE(adaptor, nullptr);
  adaptor->perform(forward, 1, 2, nullptr);
  EXPECT_THAT(errors(),
              ElementsAre("Bundle: sendMessageWithMethod:respCode:dict: threw: not today"));
  adaptor.reset();
  EXPECT_THAT(errors(), ElementsAre(testing::_, "Bundle: destroy threw: not today"));
}

}  // namespace
}  // namespace corvid
