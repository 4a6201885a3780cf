#include <gtest/gtest.h>

#include "platform/data/JSON.h"
#include "tools/JSONValues.h"

namespace corvid::tools {
namespace {

Value read(std::string_view json) {
  const Result<Value> parsed = parseJSON(json);
  EXPECT_TRUE(parsed) << json;
  const Result<Value> value = valueFromJSON(parsed.value());
  EXPECT_TRUE(value) << json;
  return value ? value.value() : Value();
}

std::string refusalOf(std::string_view json) {
  const Result<Value> value = valueFromJSON(parseJSON(json).value());
  return value ? "none" : value.failure().message;
}

TEST(JSONValues, LeavesWhatJSONKnowsAsItIs) {
  EXPECT_EQ(read(R"({"a":[1,-2.5,true,null,"gr\u00fc\u00df \"dich\"",{}]})"),
            Value(Dictionary{
                {"a", Array{1, -2.5, true, Value(), "gr\u00fc\u00df \"dich\"", Dictionary{}}}}));
}

TEST(JSONValues, WholeNumbersAreIntegersAndOthersReals) {
  EXPECT_EQ(read("[9223372036854775807]").array()->front(), Value(INT64_MAX));
  EXPECT_EQ(read("[5.0]").array()->front(), Value(5.0));
  EXPECT_EQ(read("[1e3]").array()->front(), Value(1000.0));
}

TEST(JSONValues, ReadsDatesAndDataAtAnyDepth) {
  EXPECT_EQ(read(R"({"$date":1700000000.5})"), Value(Date{1700000000.5}));
  EXPECT_EQ(read(R"([[{"at":{"$date":-1}}]])"),
            Value(Array{Value(Array{Dictionary{{"at", Date{-1}}}})}));
  EXPECT_EQ(read(R"({"d":[{"$data":"AAH/"},{"$data":""}]})"),
            Value(Dictionary{{"d", Array{Data{std::string("\0\1\xff", 3)}, Data{}}}}));
}

TEST(JSONValues, ADictionaryWithMoreKeysIsADictionary) {
  EXPECT_EQ(read(R"({"$date":1,"$data":"x"})"), Value(Dictionary{{"$date", 1}, {"$data", "x"}}));
  EXPECT_EQ(read(R"({"$Date":1})"), Value(Dictionary{{"$Date", 1}}));
}

TEST(JSONValues, RefusesDatesThatAreNoNumbers) {
  EXPECT_EQ(refusalOf(R"([{"$date":"today"}])"), R"("$date" takes a number of seconds, not today)");
  EXPECT_EQ(refusalOf(R"({"a":{"$date":true}})").substr(0, 40),
            R"("$date" takes a number of seconds, not )"
            "1");
  for (const char* content : {"null", "[5]", "{}", R"({"$date":5})"})
    EXPECT_TRUE(refusalOf(R"({"$date":)" + std::string(content) + "}")
                    .starts_with(R"("$date" takes a number of seconds, not )"))
        << content;
}

TEST(JSONValues, RefusesDataThatIsNoBase64) {
  EXPECT_EQ(refusalOf(R"([{"$data":"abc"}])"), R"("$data" takes Base64, not abc)");
  EXPECT_EQ(refusalOf(R"({"$data":"AP8=!"})"), R"("$data" takes Base64, not AP8=!)");
  EXPECT_EQ(refusalOf(R"({"$data":"AP9="})"), R"("$data" takes Base64, not AP9=)");
  EXPECT_EQ(refusalOf(R"({"$data":5})"), R"("$data" takes Base64, not 5)");
  for (const char* content : {"null", "true", R"(["AA=="])", R"({"$data":"AA=="})"})
    EXPECT_TRUE(refusalOf(R"({"$data":)" + std::string(content) + "}")
                    .starts_with(R"("$data" takes Base64, not )"))
        << content;
}

TEST(JSONValues, WritesDatesAndDataAsTheyAreRead) {
  const Value value(Dictionary{{"when", Date{0.25}},
                               {"bytes", Data{std::string("\0\xff", 2)}},
                               {"deep", Array{Array{Date{1}}, Dictionary{{"d", Data{"x"}}}}},
                               {"plain", 5}});
  const Value json = jsonFromValue(value);
  EXPECT_EQ(writeJSON(*json.dictionary()),
            R"({"when":{"$date":0.25},"bytes":{"$data":"AP8="},)"
            R"("deep":[[{"$date":1.0}],{"d":{"$data":"eA=="}}],"plain":5})");
  EXPECT_EQ(valueFromJSON(json).value(), value);
}

TEST(JSONValues, AWordIsJSONOrElseItself) {
  const std::pair<const char*, Value> cases[] = {{"true", true},
                                                 {"4", 4},
                                                 {"-0.5", -0.5},
                                                 {"\"4\"", "4"},
                                                 {"[1]", Array{1}},
                                                 {"null", Value()},
                                                 {"{\"$date\":0}", Date{0}},
                                                 {"007", "007"},
                                                 {"nan", "nan"},
                                                 {"inf", "inf"},
                                                 {"1,2", "1,2"},
                                                 {"", ""},
                                                 {"+1", "+1"},
                                                 {"{", "{"},
                                                 {"two words", "two words"}};
  for (const auto& [word, value] : cases) EXPECT_EQ(valueFromWord(word).value(), value) << word;
  EXPECT_FALSE(valueFromWord("{\"$data\":5}"));
}

}  // namespace
}  // namespace corvid::tools
