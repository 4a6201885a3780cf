#include <gtest/gtest.h>

#include "config/StorebagFetch.h"

namespace corvid {
namespace {

TEST(CacheControl, MaxAgeIsTheNumberAfterTheDirective) {
  EXPECT_EQ(maxAgeFromCacheControl("max-age=600"), 600);
  EXPECT_EQ(maxAgeFromCacheControl("public, max-age=60"), 60);
  EXPECT_EQ(maxAgeFromCacheControl("max-age=0"), 0);
}

TEST(CacheControl, WithoutTheDirectiveADayHolds) {
  EXPECT_EQ(maxAgeFromCacheControl(""), 86400);
  EXPECT_EQ(maxAgeFromCacheControl("no-cache"), 86400);
  EXPECT_EQ(maxAgeFromCacheControl("s-max-age=60"), 86400);
  EXPECT_EQ(maxAgeFromCacheControl("max-ages=60"), 86400);
}

TEST(CacheControl, ADirectiveWithNothingAfterItCountsAsMissing) {
  EXPECT_EQ(maxAgeFromCacheControl("max-age"), 86400);
  EXPECT_EQ(maxAgeFromCacheControl("public, max-age"), 86400);
}

TEST(CacheControl, AnEmptyComponentAfterTheDirectiveIsZero) {
  EXPECT_EQ(maxAgeFromCacheControl("max-age="), 0);
  EXPECT_EQ(maxAgeFromCacheControl("max-age "), 0);
  EXPECT_EQ(maxAgeFromCacheControl("max-age = 60"), 0);
  EXPECT_EQ(maxAgeFromCacheControl("max-age==60"), 0);
}

TEST(CacheControl, WhatIsNoNumberIsZero) {
  EXPECT_EQ(maxAgeFromCacheControl("max-age=abc"), 0);
  EXPECT_EQ(maxAgeFromCacheControl("max-age=\"60\""), 0);
  EXPECT_EQ(maxAgeFromCacheControl("max-age=-"), 0);
}

TEST(CacheControl, LeadingDigitsAndASignCount) {
  EXPECT_EQ(maxAgeFromCacheControl("max-age=60, public"), 60);
  EXPECT_EQ(maxAgeFromCacheControl("max-age=60s"), 60);
  EXPECT_EQ(maxAgeFromCacheControl("max-age=+60"), 60);
  EXPECT_EQ(maxAgeFromCacheControl("max-age=-60"), -60);
}

TEST(CacheControl, OnlyEqualSignsAndBlanksSeparate) {
  EXPECT_EQ(maxAgeFromCacheControl("public,max-age=60"), 86400);
  EXPECT_EQ(maxAgeFromCacheControl("public;max-age=60"), 86400);
  EXPECT_EQ(maxAgeFromCacheControl("max-age 60"), 60);
  EXPECT_EQ(maxAgeFromCacheControl(" max-age=60"), 60);
}

TEST(CacheControl, TheDirectiveIsFoundByItsExactCase) {
  EXPECT_EQ(maxAgeFromCacheControl("Max-Age=60"), 86400);
}

TEST(CacheControl, TheFirstDirectiveCounts) {
  EXPECT_EQ(maxAgeFromCacheControl("max-age=60, max-age=120"), 60);
  EXPECT_EQ(maxAgeFromCacheControl("max-age=max-age=120"), 0);
}

TEST(CacheControl, NumbersSaturateAtTheEndsOfTheirType) {
  EXPECT_EQ(maxAgeFromCacheControl("max-age=2147483647"), 2147483647);
  EXPECT_EQ(maxAgeFromCacheControl("max-age=2147483648"), 2147483647);
  EXPECT_EQ(maxAgeFromCacheControl("max-age=99999999999999999999999"), 2147483647);
  EXPECT_EQ(maxAgeFromCacheControl("max-age=-99999999999999999999999"), -2147483647 - 1);
}

}  // namespace
}  // namespace corvid
