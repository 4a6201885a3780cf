#include <gtest/gtest.h>

#include <limits>

#include "base/Describe.h"

namespace corvid {
namespace {

TEST(Describe, ContainersAreCompactJSON) {
  const Dictionary d{{"a/b", Array{Value(1), Value(true), Value("x\"y\n")}}, {"r", 0.5}};
  EXPECT_EQ(description(d), "{\"a/b\":[1,true,\"x\\\"y\\n\"],\"r\":0.5}");
}

TEST(Describe, BooleansAloneAreOneAndZero) {
  EXPECT_EQ(description(Value(true)), "1");
  EXPECT_EQ(description(Value(false)), "0");
}

TEST(Describe, DatesAreUTC) {
  EXPECT_EQ(descriptionOfDate(1795205585.9), "2026-11-20 20:13:05 +0000");
  EXPECT_EQ(descriptionOfDate(-0.5), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(descriptionOfDate(std::numeric_limits<double>::infinity()), "inf");
}

TEST(Describe, AnAbsentObjectIsNull) {
  EXPECT_EQ(fmt::format("{}", described<Dictionary>(nullptr)), "(null)");
  EXPECT_EQ(orNull(std::optional<std::string>{}), "(null)");
}

}  // namespace
}  // namespace corvid
