#include <gtest/gtest.h>

#include <string>

#include "base/NearestWord.h"

namespace corvid {
namespace {

constexpr std::string_view known[] = {"ProductionStorebagHost", "InternalStorebagHost", "CAFile"};

TEST(NearestWord, IsTheOneWithTheFewestEdits) {
  EXPECT_EQ(nearestWord("ProductionStorebagsHost", known), "ProductionStorebagHost");
  EXPECT_EQ(nearestWord("InternlStorebagHost", known), "InternalStorebagHost");
  EXPECT_EQ(nearestWord("CAfiel", known), "CAFile");
}

TEST(NearestWord, TakesNoNoticeOfCase) {
  EXPECT_EQ(nearestWord("cafile", known), "CAFile");
  EXPECT_EQ(nearestWord("PRODUCTIONSTOREBAGHOST", known), "ProductionStorebagHost");
}

TEST(NearestWord, CountsExchangedNeighboursOnce) {
  constexpr std::string_view ports[] = {"part", "port"};
  EXPECT_EQ(nearestWord("prot", ports), "port");
  EXPECT_EQ(nearestWord("opart", ports), "part");
  EXPECT_EQ(nearestWord("trop", ports), std::nullopt);
}

TEST(NearestWord, IsNoneWhereMoreThanAThirdDiffers) {
  EXPECT_EQ(nearestWord("", known), std::nullopt);
  EXPECT_EQ(nearestWord("File", known), std::nullopt);
  EXPECT_EQ(nearestWord("Colour", known), std::nullopt);
  EXPECT_EQ(nearestWord("CAFile", {}), std::nullopt);
  EXPECT_EQ(nearestWord(std::string(10'000, 'x'), known), std::nullopt);
}

}  // namespace
}  // namespace corvid
