#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include "gateway/Limits.h"
#include "gateway/body/JSONCheck.h"

namespace corvid::fleet {
namespace {

std::string wordOf(const std::optional<Refusal>& refusal) {
  return refusal ? std::string(textOf(refusal->rule).word) : "taken";
}

std::string checkWhole(std::string_view text) {
  JSONCheck check;
  return wordOf(check.advance(text, true));
}

// As it comes from a slow client.
std::string checkInPieces(const std::string& text, std::size_t piece) {
  JSONCheck check;
  for (std::size_t end = 0; end < text.size(); end += piece)
    if (const auto refusal = check.advance(std::string_view(text).substr(0, end), false))
      return wordOf(refusal);
  return wordOf(check.advance(text, true));
}

struct Case {
  std::string name;
  std::string text;
  std::string verdict;
};
void PrintTo(const Case& one, std::ostream* out) { *out << one.name; }

std::string inEvent(std::string_view value) {
  return fmt::format(R"({{"events":[{{"value":{}}}]}})", value);
}

std::string nested(std::size_t levels) {
  const std::size_t inner = levels - 3;  // object, array, event
  return inEvent(std::string(inner, '[') + std::string(inner, ']'));
}

std::string membersOf(std::size_t count) {
  std::string members;
  for (std::size_t i = 0; i < count; ++i) members += fmt::format("{}\"key{}\":0", i ? "," : "", i);
  return members;
}

std::string nul(std::string_view before, std::string_view after) {
  return std::string(before).append(1, '\0').append(after);
}

const std::vector<Case> cases{
    {"ThePostOfTheDocuments", R"({"postTime":1.5,"clientId":"D","events":[{"a":"b","c":12.5}]})",
     "taken"},
    {"NoEvents", R"({"events":[]})", "taken"},
    {"BlanksAnywhere", " \t\r\n{ \"events\" : [ { } , { \"a\" : [ 1 , 2 ] } ] } \n", "taken"},
    {"EveryKindOfValue", inEvent(R"([true,false,null,0,-0,1e5,-1.5E-3,"",{},[]])"), "taken"},
    {"EveryEscape", inEvent(R"("\"\\\/\b\f\n\r\t\u00e9\ud83d\ude00")"), "taken"},
    {"UTF8OfEveryLength", inEvent("\"é€😀\""), "taken"},
    {"TheSameKeyInTwoObjects", R"({"events":[{"a":{"a":1}},{"a":2}]})", "taken"},
    {"AnEscapedEventsKey", R"({"\u0065vents":[{}]})", "taken"},
    {"EventsFurtherDownToo", R"({"a":{"events":1},"events":[{"events":2}]})", "taken"},
    {"NestedAsDeepAsMayBe", nested(limits::nesting), "taken"},
    {"AsManyMembersAsMayBe", inEvent("{" + membersOf(limits::members) + "}"), "taken"},
    {"TheGreatestDouble", inEvent("1.7976931348623157e308"), "taken"},
    {"TheLeastDouble", inEvent("5e-324"), "taken"},
    {"ManyDigits", inEvent(std::string(300, '9')), "taken"},

    {"Nothing", "", "noJSON"},
    {"OnlyBlanks", "  ", "noJSON"},
    {"ByteOrderMark", "\xef\xbb\xbf{\"events\":[]}", "noJSON"},
    {"CutInAKey", R"({"eve)", "noJSON"},
    {"CutInAnEscape", R"({"\u00)", "noJSON"},
    {"CutInALiteral", R"({"a":tr)", "noJSON"},
    {"CutInANumber", R"({"a":1.)", "noJSON"},
    {"CutBehindAValue", R"({"events":[{}])", "noJSON"},
    {"LackingColon", R"({"events" []})", "noJSON"},
    {"LackingComma", R"({"events":[{} {}]})", "noJSON"},
    {"TrailingCommaInAnArray", R"({"events":[{},]})", "eventNoObject"},
    {"TrailingCommaInAnInnerArray", inEvent("[1,]"), "noJSON"},
    {"TrailingCommaInAnObject", R"({"events":[],})", "noJSON"},
    {"WrongBracket", R"({"events":[}})", "eventNoObject"},
    {"AnObjectClosedAsAnArray", R"({"events":[{"a":1]})", "noJSON"},
    {"BareWord", inEvent("NaN"), "noJSON"},
    {"WrongLiteral", inEvent("nul1"), "noJSON"},
    {"SingleQuotes", "{'events':[]}", "noJSON"},
    {"Comment", "{/**/\"events\":[]}", "noJSON"},
    {"UnknownEscape", inEvent(R"("\x41")"), "noJSON"},
    {"LineFeedInAText", inEvent("\"a\nb\""), "noJSON"},
    {"LeadingZero", inEvent("01"), "noJSON"},
    {"LeadingPlus", inEvent("+1"), "noJSON"},
    {"NoDigitsBehindThePoint", inEvent("1."), "noJSON"},
    {"NoDigitsBeforeThePoint", inEvent(".5"), "noJSON"},
    {"NoExponent", inEvent("1e"), "noJSON"},
    {"TwoNumbers", inEvent("1-2"), "noJSON"},
    {"OnlyAMinus", inEvent("-"), "noJSON"},

    {"AnotherObject", R"({"events":[]}{})", "trailing"},
    {"ZeroByteBehind", nul(R"({"events":[]})", ""), "trailing"},
    {"AnArray", "[]", "noObject"},
    {"AText", "\"events\"", "noObject"},
    {"ANumber", "7", "noObject"},
    {"NoKey", "{}", "noEvents"},
    {"EventsInAnotherCase", R"({"Events":[]})", "noEvents"},
    {"EventsDeeperDownOnly", R"({"a":{"events":[]}})", "noEvents"},
    {"EventsAsObject", R"({"events":{}})", "eventsNoArray"},
    {"EventsAsNull", R"({"events":null})", "eventsNoArray"},
    {"EventsAsText", R"({"events":"[]"})", "eventsNoArray"},
    {"AnEventThatIsAText", R"({"events":[{},"a"]})", "eventNoObject"},
    {"AnEventThatIsAnArray", R"({"events":[[]]})", "eventNoObject"},
    {"AnEventThatIsNull", R"({"events":[null]})", "eventNoObject"},

    {"OneLevelTooDeep", nested(limits::nesting + 1), "nesting"},
    {"AHundredThousandLevels", R"({"a":)" + std::string(100'000, '['), "nesting"},
    {"KeysTwice", inEvent(R"({"a":1,"b":2,"a":3})"), "duplicateKey"},
    {"KeysTwiceInOtherWriting", inEvent(R"({"a":1,"\u0061":3})"), "duplicateKey"},
    {"EventsTwice", R"({"events":[],"events":[]})", "duplicateKey"},
    {"EmptyKeysTwice", inEvent(R"({"":1,"":3})"), "duplicateKey"},
    {"KeysTwiceAmongMany", inEvent("{" + membersOf(1000) + R"(,"key500":1})"), "duplicateKey"},
    {"OneMemberTooMany", inEvent("{" + membersOf(limits::members + 1) + "}"), "members"},

    {"EscapedNUL", inEvent(R"("a\u0000b")"), "nul"},
    {"NULInAText", nul(R"({"events":[{"a":"x)", R"("}]})"), "nul"},
    {"NULInAKey", R"({"a\u0000":1,"events":[]})", "nul"},
    {"NULAsAValue", nul(R"({"a":)", "}"), "nul"},
    {"LoneHighSurrogate", inEvent(R"("\ud83d")"), "surrogate"},
    {"LoneLowSurrogate", inEvent(R"("\ude00")"), "surrogate"},
    {"TwoHighSurrogates", inEvent(R"("\ud83d\ud83d")"), "surrogate"},
    {"HighSurrogateBeforeAnotherEscape", inEvent(R"("\ud83d\n12345678")"), "surrogate"},
    {"LoneContinuation", inEvent("\"\x80\""), "noUTF8"},
    {"OverlongForm", inEvent("\"\xc0\xaf\""), "noUTF8"},
    {"EncodedSurrogate", inEvent("\"\xed\xa0\x80\""), "noUTF8"},
    {"BeyondUnicode", inEvent("\"\xf4\x90\x80\x80\""), "noUTF8"},
    {"CutSequence", inEvent("\"\xe2\x82\""), "noUTF8"},
    {"Latin1",
     inEvent("\"Gr\xfc\xdf"
             "e\""),
     "noUTF8"},

    {"Overflow", inEvent("1e309"), "number"},
    {"NegativeOverflow", inEvent("-1e400"), "number"},
    {"Underflow", inEvent("1e-400"), "number"},
    {"HugeExponent", inEvent("1e99999999999999999999"), "number"},
    {"HugeExponentOfZero", inEvent("0e99999"), "number"},
    {"LargeExponentOfZero", inEvent("-0.00e+309"), "number"},
    {"FourHundredDigits", inEvent(std::string(400, '9')), "number"},
    {"EndlessDigits", inEvent("0." + std::string(limits::numberBytes, '1')), "number"},
};

class JSONCheckTest : public testing::TestWithParam<Case> {};

TEST_P(JSONCheckTest, SaysWhichRuleIsBroken) {
  EXPECT_EQ(checkWhole(GetParam().text), GetParam().verdict);
}

TEST_P(JSONCheckTest, SaysTheSameOfATextThatComesInPieces) {
  const std::string& text = GetParam().text;
  // The time for a text in pieces of one byte grows with its length only where it is looked at
  // anew.
  for (const std::size_t piece : {1u, 2u, 3u, 7u, 64u})
    EXPECT_EQ(checkInPieces(text, piece), GetParam().verdict) << piece << " bytes a piece";
}

INSTANTIATE_TEST_SUITE_P(Texts, JSONCheckTest, testing::ValuesIn(cases),
                         [](const auto& one) { return one.param.name; });

TEST(JSONCheck, SaysWhereTheRuleIsBroken) {
  JSONCheck check;
  EXPECT_EQ(check.advance(R"({"events":[7]})", true)->detail, "at byte 11");
}

TEST(JSONCheck, CountsEventsAndNothingElse) {
  JSONCheck check;
  EXPECT_FALSE(check.advance(R"({"a":[{},{}],"events":[{"b":[{}]},{}],"c":[{}]})", true));
  EXPECT_EQ(check.events(), 2u);
}

TEST(JSONCheck, TakesSoManyEventsAndNoMore) {
  std::string text = R"({"events":[{})";
  for (std::size_t i = 1; i < limits::events; ++i) text += ",{}";
  EXPECT_EQ(checkWhole(text + "]}"), "taken");
  EXPECT_EQ(checkWhole(text + ",{}]}"), "tooManyEvents");
}

TEST(JSONCheck, RefusesBeforeTheTextIsWhole) {
  JSONCheck check;
  EXPECT_TRUE(check.advance(R"({"events":[7)", false));
}

TEST(JSONCheck, DoesNotLookAgainAtALongTextThatComesInManyPieces) {
  // Looked at anew for each piece, this would take hours.
  const std::string text = inEvent('"' + std::string(4'000'000, 'x') + '"');
  EXPECT_EQ(checkInPieces(text, 16), "taken");
}

}  // namespace
}  // namespace corvid::fleet
