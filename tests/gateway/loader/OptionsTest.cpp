#include <gtest/gtest.h>

#include <cstdlib>

#include "gateway/loader/Options.h"

namespace corvid::fleet {
namespace {

class LoaderOptionsTest : public testing::Test {
 protected:
  ~LoaderOptionsTest() override {
    unsetenv("CORVID_LOG_URL");
    unsetenv("CORVID_DATABASE");
  }
};

TEST_F(LoaderOptionsTest, AddressesAreThoseOfTheEnvironmentUnlessOptionsNameThem) {
  setenv("CORVID_LOG_URL", "amqp://environment", 1);
  setenv("CORVID_DATABASE", "host=environment", 1);
  const auto bare = std::get<LoaderOptions>(readLoaderOptions({}));
  EXPECT_EQ(bare.log, "amqp://environment");
  EXPECT_EQ(bare.database, "host=environment");
  const auto named = std::get<LoaderOptions>(
      readLoaderOptions({"--log-url", "amqp://option", "--database", "host=option"}));
  EXPECT_EQ(named.log, "amqp://option");
  EXPECT_EQ(named.database, "host=option");
}

}  // namespace
}  // namespace corvid::fleet
