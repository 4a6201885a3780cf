#include <gtest/gtest.h>

#include <limits>

#include "platform/data/JSON.h"
#include "platform/data/JSONText.h"

namespace corvid {
namespace {

TEST(JSONText, SeparatesPartsHoweverTheyCame) {
  JSONText text;
  text.beginObject();
  text.add("n", 1);
  text.key("list");
  text.beginArray();
  for (const int n : {1, 2}) {
    text.beginObject();
    text.addEntries({{"a", n}, {"b", "x"}});
    text.addWritten(R"("c":0.5,"d":[])");
    text.addEntries({});
    text.endObject();
  }
  text.beginObject();
  text.endObject();
  text.endArray();
  text.addWritten(R"("last":{})");
  text.endObject();
  EXPECT_EQ(text.take(),
            R"({"n":1,"list":[{"a":1,"b":"x","c":0.5,"d":[]},{"a":2,"b":"x","c":0.5,"d":[]},{}],)"
            R"("last":{}})");
}

TEST(JSONText, EndsAreNotTakenForThoseOfTexts) {
  JSONText text;
  text.beginObject();
  text.add("k,", ",");
  text.key("[");
  text.beginArray();
  text.add(",");
  text.endArray();
  text.endObject();
  EXPECT_EQ(text.take(), R"({"k,":",","[":[","]})");
}

TEST(JSONText, IsTheSameWhateverLengthWasExpected) {
  const Dictionary entries{{"text", std::string(5000, 'x') + "\n\x1f\""}, {"n", -7}, {"r", 2.5}};
  for (const std::size_t expected : {0u, 1u, 4999u, 5000u, 100'000u}) {
    JSONText text(expected);
    text.beginObject();
    text.addEntries(entries);
    text.endObject();
    EXPECT_EQ(text.take(), writeJSON(entries)) << expected;
  }
}

TEST(JSONText, APartThatCannotBeWrittenLeavesNoText) {
  for (const Value& value : {Value("\xff"), Value(std::numeric_limits<double>::infinity()),
                             Value(Data{"x"}), Value(Date{0})}) {
    JSONText text;
    text.beginObject();
    text.add("bad", value);
    text.add("good", 1);
    text.endObject();
    EXPECT_EQ(text.take(), std::nullopt);
  }
}

}  // namespace
}  // namespace corvid
