#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/RecentKeys.h"

namespace corvid {
namespace {

using Keys = std::vector<std::string>;

class RecentKeysTest : public testing::Test {
 protected:
  // To so many keys of one letter.
  Keys shrinkTo(std::size_t count) { return recent.shrinkTo(count * RecentKeys::costOf("a")); }

  RecentKeys recent;
};

TEST_F(RecentKeysTest, TheLeastRecentlyUsedGoesFirst) {
  for (const char* key : {"a", "b", "c"}) recent.use(1000, key);
  recent.use(1000, "a");
  EXPECT_EQ(shrinkTo(3), Keys());
  EXPECT_EQ(shrinkTo(2), Keys{"b"});
  EXPECT_EQ(shrinkTo(1), Keys{"c"});
  EXPECT_TRUE(recent.has(1000, "a"));
  EXPECT_FALSE(recent.has(1000, "b"));
}

TEST_F(RecentKeysTest, WhoHasMostGivesUp) {
  recent.use(1000, "a");
  recent.use(1000, "b");
  for (const char* key : {"c", "d", "e"}) recent.use(1001, key);
  EXPECT_EQ(shrinkTo(4), Keys{"c"});
  for (int i = 0; i < 100; ++i) {
    recent.use(1001, std::string(1, static_cast<char>('f' + i % 20)));
    shrinkTo(4);
  }
  EXPECT_TRUE(recent.has(1000, "a"));
  EXPECT_TRUE(recent.has(1000, "b"));
}

TEST_F(RecentKeysTest, AKeyThatAnotherUsesTooStays) {
  recent.use(1000, "a");
  recent.use(1001, "a");
  recent.use(1001, "b");
  EXPECT_EQ(shrinkTo(2), Keys());
  EXPECT_TRUE(recent.has(1000, "a"));
  EXPECT_FALSE(recent.has(1001, "a"));
}

TEST_F(RecentKeysTest, OneThatIsLargerThanEverythingGoesItself) {
  recent.use(1000, "a");
  const std::string large(1000, 'x');
  recent.use(1001, large);
  EXPECT_EQ(shrinkTo(2), Keys{large});
  EXPECT_TRUE(recent.has(1000, "a"));
}

TEST_F(RecentKeysTest, AForgottenKeyIsNobodys) {
  recent.use(1000, "a");
  recent.use(1001, "a");
  recent.use(1001, "b");
  recent.forget("a");
  ASSERT_EQ(recent.uses().size(), 1u);
  EXPECT_EQ(recent.uses().front().key, "b");
  EXPECT_EQ(shrinkTo(0), Keys{"b"});
}

TEST_F(RecentKeysTest, UsesStandInTheirOrder) {
  for (const char* key : {"a", "b", "c", "a"}) recent.use(1000, key);
  Keys order;
  for (const RecentKeys::Use& use : recent.uses()) order.push_back(use.key);
  EXPECT_EQ(order, (Keys{"b", "c", "a"}));
}

}  // namespace
}  // namespace corvid
