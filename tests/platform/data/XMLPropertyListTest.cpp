#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "platform/data/PropertyList.h"

namespace corvid {
namespace {

using namespace std::string_literals;

Value read(std::string_view text) {
  Result<Value> result = parsePropertyList(text);
  EXPECT_TRUE(result) << text << ": " << result.failure().message;
  return result ? std::move(result).value() : Value();
}

Value element(std::string_view text) { return read("<plist>" + std::string(text) + "</plist>"); }

std::string failureOf(std::string_view text) {
  const Result<Value> result = parsePropertyList(text);
  EXPECT_FALSE(result) << text;
  return result ? "" : result.failure().message;
}

TEST(XMLPropertyList, ReadsAWholeDocument) {
  EXPECT_EQ(
      read("\xef\xbb\xbf<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//corvid>//DTD PLIST 1.0//EN\" 'http://x/p.dtd'>\n"
           "<!-- what this is -->\n"
           "<plist version=\"1.0\">\r\n"
           "<dict>\n"
           "  <key>text</key> <string>x &lt;&amp;&gt; y</string>\n"
           "  <!-- between -->\n"
           "  <key>flags</key> <array><true/><false/><true></true></array>\n"
           "  <key>nothing</key><dict/>\n"
           "</dict>\n"
           "</plist>\n<!-- after -->\n"),
      Value(Dictionary{
          {"text", "x <&> y"}, {"flags", Array{true, false, true}}, {"nothing", Dictionary{}}}));
}

TEST(XMLPropertyList, TheRootMayStandWithoutItsWrapping) {
  EXPECT_EQ(read("<array><true/></array>"), Value(Array{true}));
}

TEST(XMLPropertyList, IntegersAreDecimalOrHexadecimal) {
  EXPECT_EQ(element("<integer>42</integer>"), Value(42));
  EXPECT_EQ(element("<integer> -5 </integer>"), Value(-5));
  EXPECT_EQ(element("<integer>+7</integer>"), Value(7));
  EXPECT_EQ(element("<integer>010</integer>"), Value(10));
  EXPECT_EQ(element("<integer>0xFf</integer>"), Value(255));
  EXPECT_EQ(element("<integer>-9223372036854775808</integer>"),
            Value(std::numeric_limits<std::int64_t>::min()));
}

TEST(XMLPropertyList, LargeUnsignedIntegersWrapAndLargerOnesAreRefused) {
  EXPECT_EQ(element("<integer>18446744073709551615</integer>"), Value(-1));
  for (const char* text :
       {"18446744073709551616", "-9223372036854775809", "", "abc", "1x", "--1", "0x", "1.5", "- 1"})
    EXPECT_EQ(failureOf("<integer>" + std::string(text) + "</integer>"),
              "<integer> with an impossible content at line 1");
}

TEST(XMLPropertyList, RealsAreReadExactly) {
  EXPECT_EQ(element("<real>0.1</real>"), Value(0.1));
  EXPECT_EQ(element("<real> -1.5e3 </real>"), Value(-1500.0));
  EXPECT_EQ(element("<real>+2</real>"), Value(2.0));
  EXPECT_EQ(element("<real>-infinity</real>"), Value(-std::numeric_limits<double>::infinity()));
  EXPECT_TRUE(std::isnan(*element("<real>nan</real>").real()));
  for (const char* text : {"", "x1", "1x", "1e999", "+-1"})
    EXPECT_EQ(failureOf("<real>" + std::string(text) + "</real>"),
              "<real> with an impossible content at line 1");
}

TEST(XMLPropertyList, DatesAreReadInTheirOneForm) {
  EXPECT_EQ(element("<date>2026-11-20T20:13:05Z</date>"), Value(Date{1795205585}));
  EXPECT_EQ(element("<date>1900-01-01T00:00:00Z</date>"), Value(Date{-2208988800}));
  EXPECT_EQ(element("<date>9999-12-31T23:59:59Z</date>"), Value(Date{253402300799}));
  EXPECT_EQ(element("<date>2024-02-29T00:00:00Z</date>"), Value(Date{1709164800}));
  for (const char* text : {"", "2026-11-20", "2023-02-29T00:00:00Z", "2026-13-01T00:00:00Z",
                           "2026-11-20T24:00:00Z", "2026-11-20T20:60:00Z", "2026-11-20T20:13:05",
                           "2026-11-20 20:13:05Z", "20x6-11-20T20:13:05Z"})
    EXPECT_EQ(failureOf("<date>" + std::string(text) + "</date>"),
              "<date> with an impossible content at line 1");
}

TEST(XMLPropertyList, DataIsBase64WithBlanksBetween) {
  EXPECT_EQ(element("<data>\n\tAP8=\n</data>"), Value(Data{"\x00\xff"s}));
  EXPECT_EQ(element("<data></data>"), Value(Data{}));
  EXPECT_EQ(failureOf("<data>A</data>"), "<data> with an impossible content at line 1");
}

TEST(XMLPropertyList, StringsKeepTheirBlanksAndEveryWayOfWritingCharacters) {
  EXPECT_EQ(element("<string> a\n b </string>"), Value(" a\n b "));
  EXPECT_EQ(element("<string/>"), Value(""));
  EXPECT_EQ(element("<string><![CDATA[x<y & ]] z]]>-<!-- no <b> -->&quot;&apos;</string>"),
            Value("x<y & ]] z-\"'"));
  EXPECT_EQ(element("<string>&#233;&#xe9;&#x1F600;&#13;</string>"),
            Value("\u00e9\u00e9\U0001F600\r"));
  EXPECT_EQ(element("<string>a\r\nb\rc</string>"), Value("a\nb\nc"));
}

TEST(XMLPropertyList, EntitiesThatAreNoneAreRefused) {
  for (const char* text : {"&", "&;", "&bogus;", "&#0;", "&#xD800;", "&#x110000;", "&#99999999999;",
                           "&#-5;", "&#x;", "& lt;"})
    EXPECT_NE(failureOf("<string>" + std::string(text) + " and more text</string>")
                  .find("entity at line 1"),
              std::string::npos)
        << text;
}

TEST(XMLPropertyList, TheLastOfEqualKeysWins) {
  EXPECT_EQ(element("<dict><key>k</key><true/><key>k</key><integer>2</integer></dict>"),
            Value(Dictionary{{"k", 2}}));
}

TEST(XMLPropertyList, FailuresSayWhatIsWrongAndAtWhichLine) {
  EXPECT_EQ(failureOf("<plist>\n<dict>\n<string>x</string></dict></plist>"),
            "Expected <key>, found <string> at line 3");
  EXPECT_EQ(failureOf("<dict>\n<key>k</key>\n</dict>"), "A key without a value at line 3");
  EXPECT_EQ(failureOf("<array>\n<true/>\n</dict>"), "Expected </array>, found </dict> at line 3");
  EXPECT_EQ(failureOf("<array><integer>1</array>"),
            "Expected </integer>, found </array> at line 1");
  EXPECT_EQ(failureOf("<string>a<b/></string>"), "Expected </string>, found <b> at line 1");
  EXPECT_EQ(failureOf("<true>x</true>"), "<true> with an impossible content at line 1");
  EXPECT_EQ(failureOf("<uid/>"), "Unknown element <uid> at line 1");
  EXPECT_EQ(failureOf("<plist><plist><true/></plist></plist>"),
            "Unknown element <plist> at line 1");
  EXPECT_EQ(failureOf("</dict>"), "Unexpected </dict> at line 1");
  EXPECT_EQ(failureOf("<plist/>"), "The property list holds no value at line 1");
  EXPECT_EQ(failureOf("<plist>\n</plist>"), "The property list holds no value at line 2");
  EXPECT_EQ(failureOf("<plist><true/><true/></plist>"),
            "Expected </plist>, found <true> at line 1");
  EXPECT_EQ(failureOf("<true/>\nx"), "Something follows the property list at line 2");
  EXPECT_EQ(failureOf("no list"), "Text where an element is expected at line 1");
  EXPECT_EQ(failureOf("<array>text</array>"), "Text where an element is expected at line 1");
  EXPECT_EQ(failureOf("\n\n"), "The property list ends early at line 3");
  EXPECT_EQ(failureOf("<>"), "A tag without a usable name at line 1");
  EXPECT_EQ(failureOf("<" + std::string(65, 'x') + ">"), "A tag without a usable name at line 1");
}

TEST(XMLPropertyList, MarksThatNeverEndAreRefused) {
  EXPECT_EQ(failureOf("<!-->"), "A comment never ends at line 1");
  EXPECT_EQ(failureOf("<?xml"), "A instruction never ends at line 1");
  EXPECT_EQ(failureOf("<!DOCTYPE plist \">"), "The document type never ends at line 1");
  EXPECT_EQ(failureOf("<string><![CDATA[x]]</string>"), "A CDATA section never ends at line 1");
  EXPECT_EQ(failureOf("<string>x"), "<string> is never closed at line 1");
  EXPECT_EQ(failureOf("<dict a=\">"), "A tag never ends at line 1");
}

TEST(XMLPropertyList, DeclarationsInsideTheDocumentAreRefused) {
  EXPECT_EQ(failureOf("<!DOCTYPE plist [\n<!ENTITY a \"aaaaaaaa\"><!ENTITY b \"&a;&a;\">]>\n"
                      "<plist><string>&b;</string></plist>"),
            "Declarations inside the document are not allowed at line 1");
  EXPECT_FALSE(parsePropertyList("<plist><!DOCTYPE plist><true/></plist>"));
  EXPECT_FALSE(parsePropertyList("<!DOCTYPE a><!DOCTYPE b><true/>"));
}

TEST(XMLPropertyList, TextThatIsNotUTF8IsRefused) {
  EXPECT_EQ(failureOf("<string>a\xff</string>"), "The property list is not UTF-8");
  EXPECT_EQ(failureOf("\xff\xfe<\0a\0"s), "The property list is not UTF-8");
}

TEST(XMLPropertyList, ZeroBytesAreNoEnd) {
  EXPECT_EQ(element("<string>a\0b</string>"s), Value("a\0b"s));
  EXPECT_FALSE(parsePropertyList("<true/>\0<true/>"s));
}

TEST(XMLPropertyList, EveryTruncationIsRefused) {
  const std::string whole =
      "<?xml version=\"1.0\"?><!DOCTYPE plist SYSTEM \"x\"><plist><dict><key>a&amp;</key><array>"
      "<integer>12</integer><string>x<![CDATA[y]]><!-- z -->&#65;</string><data>AAAA</data><true/>"
      "</array></dict></plist>";
  read(whole);
  for (std::size_t length = 0; length < whole.size(); ++length)
    EXPECT_FALSE(parsePropertyList(std::string_view(whole).substr(0, length))) << length;
}

TEST(XMLPropertyList, IsWrittenIndentedWithItsSpecialCharactersEscaped) {
  EXPECT_EQ(writeXMLPropertyList(Dictionary{{"a<b", Array{1, -0.5, "x&\r\n\x01>"}},
                                            {"left out", Value()},
                                            {"when", Date{1795205585.75}},
                                            {"bytes", Data{"\xff"}}}),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<plist version=\"1.0\">\n"
            "<dict>\n"
            "\t<key>a&lt;b</key>\n"
            "\t<array>\n"
            "\t\t<integer>1</integer>\n"
            "\t\t<real>-0.5</real>\n"
            "\t\t<string>x&amp;&#13;\n\ufffd&gt;</string>\n"
            "\t</array>\n"
            "\t<key>when</key>\n"
            "\t<date>2026-11-20T20:13:05Z</date>\n"
            "\t<key>bytes</key>\n"
            "\t<data>/w==</data>\n"
            "</dict>\n"
            "</plist>\n");
}

TEST(XMLPropertyList, DatesThatTheFormCannotWriteAreLeftOut) {
  for (const double seconds : {253402300800.0, -62167219201.0, 1e300, std::nan("")})
    EXPECT_EQ(read(writeXMLPropertyList(Dictionary{{"d", Date{seconds}}, {"k", 1}})),
              Value(Dictionary{{"k", 1}}));
  EXPECT_EQ(read(writeXMLPropertyList(Date{-62167219200.0})), Value(Date{-62167219200.0}));
}

}  // namespace
}  // namespace corvid
