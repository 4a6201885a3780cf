#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/data/PropertyList.h"
#include "platform/system/DynamicBundleLoader.h"
#include "tests/fakes/CapturedLog.h"

namespace corvid {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr std::string_view forward = "sendMessageWithMethod:respCode:dict:";

std::string pathOf(const std::string& bundle) {
  return std::string(CORVID_BUNDLES_FOLDER) + "/" + bundle + ".so";
}

class DynamicBundleLoaderTest : public testing::Test {
 protected:
  // An adaptor of a bundle that has been loaded.
  std::unique_ptr<BundleObject> adaptorOf(const std::string& bundle) {
    const auto loaded = DynamicBundleLoader(pathOf(bundle)).performanceBundle();
    const BundleClass* const type = loaded ? loaded->classNamed("MetrixAdaptor") : nullptr;
    return type ? type->create() : nullptr;
  }
  template <class Function>
  static Function functionOf(const std::string& bundle, const char* name) {
    void* const library = dlopen(pathOf(bundle).c_str(), RTLD_NOW | RTLD_NOLOAD);
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
  DynamicBundleLoader loader(pathOf("Sound"));
  const auto bundle = loader.performanceBundle();
  ASSERT_NE(bundle, nullptr);
  EXPECT_EQ(loader.performanceBundle(), bundle);
  EXPECT_NE(bundle->classNamed("Another"), nullptr);
  EXPECT_EQ(bundle->classNamed("Absent"), nullptr);
}

TEST_F(DynamicBundleLoaderTest, AnAbsentBundleIsNothingToTalkAbout) {
  EXPECT_EQ(DynamicBundleLoader(pathOf("Absent")).performanceBundle(), nullptr);
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(DynamicBundleLoaderTest, OneThatMustNotBeUsedIsNotLoaded) {
  EXPECT_EQ(DynamicBundleLoader(pathOf("CrashesAtLoad"), false).performanceBundle(), nullptr);
  EXPECT_THAT(errors(), IsEmpty());
}

struct UnusableBundle {
  const char* name;
  const char* reason;
};
class UnusableBundles : public DynamicBundleLoaderTest,
                        public testing::WithParamInterface<UnusableBundle> {};

TEST_P(UnusableBundles, GiveNothingAndSayWhy) {
  DynamicBundleLoader loader(pathOf(GetParam().name));
  EXPECT_EQ(loader.performanceBundle(), nullptr);
  EXPECT_THAT(errors(),
              ElementsAre(AllOf(HasSubstr("Bundle: cannot use " + pathOf(GetParam().name)),
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
  DynamicBundleLoader loader("libdl.so.2");
  EXPECT_EQ(loader.performanceBundle(), nullptr);
  EXPECT_THAT(errors(), IsEmpty()) << "a name without a folder is no bundle's path";
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
