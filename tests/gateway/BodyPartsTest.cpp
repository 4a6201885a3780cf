#include <gtest/gtest.h>

#include <array>
#include <string>

#include "gateway/Budget.h"
#include "gateway/body/Digest.h"
#include "gateway/body/Gunzip.h"
#include "gateway/body/LogData.h"
#include "gateway/uploads/UploadQuery.h"
#include "tests/gateway/Caller.h"
#include "tools/Gzip.h"

namespace corvid::fleet {
namespace {

TEST(GunzipTest, UnpacksAcrossPiecesAndKnowsTheEnd) {
  const std::string content(100'000, 'x');
  const std::string packed = gzip(content);
  Gunzip gunzip;
  std::string unpacked;
  std::array<char, 1000> room;
  for (const char byte : packed) {
    EXPECT_EQ(gunzip.state(), Gunzip::State::goesOn);
    std::string_view piece(&byte, 1);
    std::size_t made;
    do {
      made = gunzip.unpack(piece, room);
      unpacked.append(room.data(), made);
    } while (made == room.size());
  }
  EXPECT_EQ(gunzip.state(), Gunzip::State::whole);
  EXPECT_EQ(unpacked, content);
}

TEST(GunzipTest, LeavesWhatFollowsTheStream) {
  const std::string packed = gzip("abc") + "more";
  std::string_view rest = packed;
  std::array<char, 100> room;
  Gunzip gunzip;
  EXPECT_EQ(gunzip.unpack(rest, room), 3u);
  EXPECT_EQ(rest, "more");
}

TEST(GunzipTest, KnowsDamage) {
  std::string packed = gzip("some content");
  packed[packed.size() - 5] ^= 1;  // the checksum
  std::string_view rest = packed;
  std::array<char, 100> room;
  Gunzip gunzip;
  (void)gunzip.unpack(rest, room);
  EXPECT_EQ(gunzip.state(), Gunzip::State::damaged);
}

TEST(GunzipsTest, LendsWhatCameBackForAnotherStream) {
  Gunzips pool;
  Gunzip* first;
  {
    const auto lent = pool.lend();
    first = lent.get();
    std::string_view piece = "no gzip";
    std::array<char, 10> room;
    (void)lent->unpack(piece, room);
    EXPECT_EQ(lent->state(), Gunzip::State::damaged);
  }
  const auto again = pool.lend();
  EXPECT_EQ(again.get(), first);
  EXPECT_EQ(again->state(), Gunzip::State::goesOn);
}

TEST(DigestTest, IsSHA256OfAllThatWasAdded) {
  Digest digest;
  digest.add("a");
  digest.add("bc");
  EXPECT_EQ(digest.hexadecimal(),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
}

TEST(BudgetTest, GivesNoMoreThanThereIsAndTakesBackWhatGoes) {
  Budget budget(100);
  Budget::Charge one(budget);
  EXPECT_TRUE(one.raiseTo(60));
  {
    Budget::Charge other(budget);
    EXPECT_FALSE(other.raiseTo(41));
    EXPECT_TRUE(other.raiseTo(40));
    EXPECT_TRUE(other.raiseTo(10)) << "has more already";
    EXPECT_EQ(budget.used(), 100u);
    EXPECT_TRUE(budget.isTight(true));
  }
  EXPECT_EQ(budget.used(), 60u);
  EXPECT_FALSE(budget.isTight(false));
  const Budget::Charge moved(std::move(one));
  EXPECT_EQ(budget.used(), 60u);
}

TEST(BudgetTest, AClientLeavesAThirdOfWhatIsThereToOthers) {
  Budget budget(90);
  const auto one = std::make_shared<Budget::Share>();
  Budget::Charge first(budget, one);
  Budget::Charge second(budget, one);
  EXPECT_TRUE(first.raiseTo(50));
  EXPECT_FALSE(second.raiseTo(11));
  EXPECT_TRUE(second.isBeyondShare());
  EXPECT_TRUE(second.raiseTo(10));
  EXPECT_EQ(one->used(), 60u);
  Budget::Charge other(budget, std::make_shared<Budget::Share>());
  EXPECT_FALSE(other.raiseTo(21)) << "of 30 that are left";
  EXPECT_TRUE(other.raiseTo(20));
  EXPECT_TRUE(budget.isTight(false));
  EXPECT_FALSE(budget.isTight(true));
  Budget::Charge nobody(budget);
  EXPECT_FALSE(nobody.raiseTo(11));
  EXPECT_FALSE(nobody.isBeyondShare());
  first.release();
  EXPECT_EQ(one->used(), 10u);
}

TEST(LogDataTest, IsABinaryPropertyListOfAnArray) {
  EXPECT_TRUE(isLogData(logData()));
  std::string dictionary = logData();
  dictionary[8] = '\xD0';
  EXPECT_FALSE(isLogData(dictionary));
  EXPECT_FALSE(isLogData(""));
  EXPECT_FALSE(isLogData("bplist00"));
  EXPECT_FALSE(isLogData(logData().substr(1)));
  EXPECT_FALSE(isLogData("<plist version=\"1.0\"><array/></plist>"));
}

TEST(LogDataTest, HasATrailerThatPointsIntoIt) {
  const std::string list = logData();
  const std::size_t trailer = list.size() - 32;
  for (std::size_t at = trailer + 6; at < list.size(); ++at) {
    std::string wrong = list;
    wrong[at] = '\xFF';
    EXPECT_FALSE(isLogData(wrong)) << "byte " << at - trailer << " of the trailer";
  }
}

TEST(UploadQueryTest, ReadsWhatTheAddressSays) {
  const auto query = UploadQuery::parse(
      "uuid=ea5af&sequence=44&description=Parley%20AFRC%20log%20(Uploaded%20by%20Mantle)"
      "&filename=call%20log.txt.gz&raw=true");
  ASSERT_TRUE(query);
  EXPECT_EQ(query->uuid, "ea5af");
  EXPECT_EQ(query->sequence, "44");
  EXPECT_EQ(query->filename, "call log.txt.gz");
  EXPECT_EQ(query->description, "Parley AFRC log (Uploaded by Mantle)");
}

TEST(UploadQueryTest, RefusesWhatLacksAPartOrSaysItTwice) {
  EXPECT_FALSE(UploadQuery::parse(""));
  EXPECT_FALSE(UploadQuery::parse("uuid=a&sequence=1"));
  EXPECT_FALSE(UploadQuery::parse("uuid=a&sequence=1&filename="));
  EXPECT_FALSE(UploadQuery::parse("uuid=a&sequence=1&filename=b&uuid=c"));
  EXPECT_TRUE(UploadQuery::parse("uuid=a&sequence=1&filename=b"));
  EXPECT_FALSE(UploadQuery::parse("uuid=a&sequence=1&filename=" + std::string(4096, 'b')));
}

}  // namespace
}  // namespace corvid::fleet
