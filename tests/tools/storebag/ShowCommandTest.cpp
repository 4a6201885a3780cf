#include <gtest/gtest.h>

#include "platform/data/Crypto.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tests/support/Scratch.h"
#include "tests/tools/storebag/StorebagTool.h"
#include "tools/JSONValues.h"

namespace corvid {
namespace {

const Dictionary shownBag{{"version", "1"},
                          {"secret", Data{"\x01\xff"}},
                          {"since", Date{12}},
                          {"release", Dictionary{{"weights", Array{1, 0.5, true}}}}};

class ShowCommand : public testing::Test {
 protected:
  std::string shown(const std::string& bytes) {
    return printedBy({"show", _folder.write("storebag", bytes)});
  }
  Dictionary shownAsJSON(const std::string& bytes) {
    const auto json = parseJSON(printedBy({"show", "--json", _folder.write("storebag", bytes)}));
    return *tools::valueFromJSON(json.value()).value().dictionary();
  }

  const ScratchFolder _folder;
};

TEST_F(ShowCommand, PrintsWhatEveryFormHoldsAsAPropertyList) {
  const std::string expected = writeXMLPropertyList(shownBag);
  const std::string json = *writeJSON(*tools::jsonFromValue(shownBag).dictionary());
  EXPECT_EQ(shown(expected), expected);
  EXPECT_EQ(shown(writeBinaryPropertyList(shownBag)), expected);
  EXPECT_EQ(shown("\n " + json), expected);
}

TEST_F(ShowCommand, LooksIntoAnEnvelope) {
  const Dictionary envelope{{"signature", "c29tZQ=="},
                            {"bag", base64Encode(writeBinaryPropertyList(shownBag))}};
  EXPECT_EQ(shown(writeXMLPropertyList(envelope)), writeXMLPropertyList(shownBag));
}

TEST_F(ShowCommand, PrintsJSONThatMeansTheSame) {
  EXPECT_EQ(shownAsJSON(writeXMLPropertyList(shownBag)), shownBag);
  EXPECT_EQ(shownAsJSON(writeBinaryPropertyList(shownBag)), shownBag);
}

TEST_F(ShowCommand, SaysWhatIsWrongWithWhatItCannotRead) {
  const std::string file = _folder.path("storebag");
  expectFailure({"show", file}, file + ": No such file or directory");
  _folder.write("storebag", "[1]");
  expectFailure({"show", file}, file + " is no dictionary");
  _folder.write("storebag", "{\"since\":{\"$date\":\"now\"}}");
  expectFailure({"show", file}, file + ": \"$date\" takes a number of seconds, not now");
  _folder.write("storebag", writeXMLPropertyList(Dictionary{{"bag", "A"}}));
  expectFailure({"show", file}, file + ": \"bag\" is no Base64");
  _folder.write("storebag", writeXMLPropertyList(Dictionary{{"bag", base64Encode("bplist00")}}));
  const ToolResult damaged = storebagTool({"show", file});
  EXPECT_EQ(damaged.status, 1);
  EXPECT_EQ(damaged.errors.find("corvid-storebag: " + file + ": \"bag\": "), 0u) << damaged.errors;
}

}  // namespace
}  // namespace corvid
