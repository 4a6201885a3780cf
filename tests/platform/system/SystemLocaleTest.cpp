#include <gtest/gtest.h>

#include <array>

#include "platform/system/SystemLocale.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

// Starts without the variables that matter, and puts them back.
class SystemLocaleTest : public testing::Test {
 protected:
  SystemLocaleTest() {
    for (std::size_t i = 0; i < names.size(); ++i) {
      if (const char* value = std::getenv(names[i])) _saved[i] = value;
      unsetenv(names[i]);
    }
  }
  ~SystemLocaleTest() override {
    for (std::size_t i = 0; i < names.size(); ++i)
      if (_saved[i])
        setenv(names[i], _saved[i]->c_str(), 1);
      else
        unsetenv(names[i]);
  }

  std::optional<std::string> countryWithLanguage(const char* language) {
    setenv("LANG", language, 1);
    return locale.countryCode();
  }

  ScratchFolder scratch;
  SystemLocale locale{scratch.path() + "/locale.conf"};

 private:
  static constexpr std::array names = {"LC_ALL", "LC_MESSAGES", "LANG", "TZ"};
  std::array<std::optional<std::string>, names.size()> _saved;
};

TEST_F(SystemLocaleTest, TerritoryStandsBetweenLanguageAndCodeset) {
  EXPECT_EQ(countryWithLanguage("de_AT"), "AT");
  EXPECT_EQ(countryWithLanguage("de_DE.UTF-8"), "DE");
  EXPECT_EQ(countryWithLanguage("de_DE@euro"), "DE");
  EXPECT_EQ(countryWithLanguage("sr_RS.UTF-8@latin"), "RS");
  EXPECT_EQ(countryWithLanguage("es_419"), "419");
  EXPECT_EQ(countryWithLanguage("en_gb.utf8"), "GB");
}

TEST_F(SystemLocaleTest, LocaleWithoutTerritoryNamesNone) {
  for (const char* language :
       {"C", "POSIX", "en", "C.UTF-8", "", "en_", "en_X", "en_ABCD", "ca@valencia_ES", "en_U/"})
    EXPECT_EQ(countryWithLanguage(language), std::nullopt) << language;
}

TEST_F(SystemLocaleTest, AllComesBeforeMessagesBeforeLanguage) {
  setenv("LANG", "de_DE.UTF-8", 1);
  EXPECT_EQ(locale.countryCode(), "DE");
  setenv("LC_MESSAGES", "fr_FR.UTF-8", 1);
  EXPECT_EQ(locale.countryCode(), "FR");
  setenv("LC_ALL", "en_US.UTF-8", 1);
  EXPECT_EQ(locale.countryCode(), "US");
}

TEST_F(SystemLocaleTest, SourceWithoutTerritoryPassesOnToTheNext) {
  scratch.write("locale.conf", "LANG=pt_BR.UTF-8\n");
  setenv("LC_ALL", "C", 1);
  setenv("LC_MESSAGES", "en", 1);
  setenv("LANG", "C.UTF-8", 1);
  EXPECT_EQ(locale.countryCode(), "BR");
  setenv("LANG", "fi_FI", 1);
  EXPECT_EQ(locale.countryCode(), "FI");
}

TEST_F(SystemLocaleTest, FileIsReadAnewAndInTheSameOrder) {
  EXPECT_EQ(locale.countryCode(), std::nullopt);
  scratch.write("locale.conf", "LANG=\"pt_BR.UTF-8\"\nLC_MESSAGES=C\n");
  EXPECT_EQ(locale.countryCode(), "BR");
  scratch.write("locale.conf", "LANG=pt_BR.UTF-8\nLC_MESSAGES=pt_PT.UTF-8\n");
  EXPECT_EQ(locale.countryCode(), "PT");
}

TEST_F(SystemLocaleTest, CountryNamesItsSource) {
  EXPECT_EQ(locale.countryAnswer(), DeviceAnswer{});
  scratch.write("locale.conf", "LC_MESSAGES=pt_BR.UTF-8\n");
  EXPECT_EQ(locale.countryAnswer(), (DeviceAnswer{"BR", "locale.conf"}));
  setenv("LANG", "de_DE.UTF-8", 1);
  EXPECT_EQ(locale.countryAnswer(), (DeviceAnswer{"DE", "LANG"}));
  setenv("LC_MESSAGES", "fr_FR.UTF-8", 1);
  EXPECT_EQ(locale.countryAnswer(), (DeviceAnswer{"FR", "LC_MESSAGES"}));
  setenv("LC_ALL", "en_US.UTF-8", 1);
  EXPECT_EQ(locale.countryAnswer(), (DeviceAnswer{"US", "LC_ALL"}));
}

constexpr TimeValue winter{1'704'067'200, 0};  // 2024-01-01
constexpr TimeValue summer{1'719'792'000, 0};  // 2024-07-01

TEST_F(SystemLocaleTest, OffsetIsThatOfTheEnvironmentsZoneAtTheMoment) {
  setenv("TZ", "XST-3:30XDT,M3.5.0,M10.5.0", 1);
  EXPECT_EQ(locale.secondsFromGMT(winter), 12600);
  EXPECT_EQ(locale.secondsFromGMT(summer), 16200);
  setenv("TZ", "YST8", 1);
  EXPECT_EQ(locale.secondsFromGMT(winter), -28800);
}

TEST_F(SystemLocaleTest, OffsetIsThatOfTheSystemWhereTheEnvironmentHasNone) {
  setenv("TZ", "YST8", 1);
  ASSERT_EQ(locale.secondsFromGMT(winter), -28800);
  unsetenv("TZ");
  setenv("TZ", ":/etc/localtime", 1);
  const auto system = locale.secondsFromGMT(winter);
  unsetenv("TZ");
  EXPECT_EQ(locale.secondsFromGMT(winter), system);
}

TEST_F(SystemLocaleTest, OffsetNamesItsSource) {
  EXPECT_EQ(locale.timeZoneOffset(winter).source, "system");
  setenv("TZ", "YST8", 1);
  for (int round = 0; round < 2; ++round)
    EXPECT_EQ(locale.timeZoneOffset(winter), (Sourced<std::int32_t>{-28800, "TZ"}));
}

TEST_F(SystemLocaleTest, OffsetOfAMomentBeyondTheCalendarIsZero) {
  setenv("TZ", "YST8", 1);
  EXPECT_EQ(locale.secondsFromGMT({std::numeric_limits<std::int64_t>::max(), 0}), 0);
}

}  // namespace
}  // namespace corvid
