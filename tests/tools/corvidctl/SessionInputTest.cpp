// What `corvidctl session` does with input that cannot be used, and how it ends.
#include "tests/tools/corvidctl/SessionProcess.h"

namespace corvid {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* finishes = R"({"call":"finish","result":null})";

class SessionInput : public CtlFixture {
 protected:
  // The error that a line gives; the line after it is read.
  std::string refusalOf(std::string_view line) {
    const Lines lines = session(std::string(line) + "\n{\"call\":\"finish\"}\n");
    if (lines.size() != 2 || lines[1] != finishes) {
      ADD_FAILURE() << line << " printed " << lines.size() << " lines";
      return "";
    }
    return lines[0];
  }
};

TEST_F(SessionInput, EndsWellWithoutAnyInput) {
  serve();
  EXPECT_EQ(session(""), Lines());
  EXPECT_TRUE(delegate->awaitInvalidated(0));
}

TEST_F(SessionInput, PassesOverBlankLines) {
  serve();
  EXPECT_EQ(session("\n  \t\r\n{\"call\":\"finish\"}\r\n\n"), Lines{finishes});
}

TEST_F(SessionInput, ALastLineWithoutAnEndIsUsed) {
  serve();
  EXPECT_EQ(session("{\"call\":\"finish\"}"), Lines{finishes});
}

}  // namespace
}  // namespace corvid
