#include <gtest/gtest.h>

#include "tools/CommandLine.h"

namespace corvid::tools {
namespace {

CommandLine parse(std::vector<std::string> arguments) {
  return CommandLine(arguments, {"--name", "--number"}, {"--flag"});
}

// What the person is told.
std::string refusalOf(std::vector<std::string> arguments) {
  try {
    parse(std::move(arguments)).number("--number", -5, 5);
  } catch (const UsageError& error) {
    return error.what();
  }
  return "none";
}

TEST(CommandLine, TellsOptionsFlagsAndWordsApartInWhateverOrder) {
  const CommandLine line = parse({"one", "--name", "text", "two", "--flag", "three"});
  EXPECT_EQ(line.words(), (std::vector<std::string>{"one", "two", "three"}));
  EXPECT_EQ(line.text("--name"), "text");
  EXPECT_TRUE(line.has("--flag"));
}

TEST(CommandLine, WhatIsNotGivenIsAbsent) {
  const CommandLine line = parse({});
  EXPECT_TRUE(line.words().empty());
  EXPECT_EQ(line.text("--name"), std::nullopt);
  EXPECT_EQ(line.number("--number", 0, 9), std::nullopt);
  EXPECT_FALSE(line.has("--flag"));
}

TEST(CommandLine, OfSeveralOptionsOfOneKindTheLastCounts) {
  EXPECT_EQ(parse({"--name", "a", "--name", "b"}).text("--name"), "b");
}

TEST(CommandLine, TakesWhateverWordAsAValue) {
  EXPECT_EQ(parse({"--name", ""}).text("--name"), "");
  EXPECT_EQ(parse({"--name", "--flag"}).text("--name"), "--flag");
  EXPECT_EQ(parse({"--name", "a=b \"c\" \u00fc"}).text("--name"), "a=b \"c\" \u00fc");
}

TEST(CommandLine, WordsMayBeEmptyOrStartWithOneDash) {
  EXPECT_EQ(parse({"", "-", "-5"}).words(), (std::vector<std::string>{"", "-", "-5"}));
}

TEST(CommandLine, ReadsWholeNumbersWithinTheirBounds) {
  EXPECT_EQ(parse({"--number", "-5"}).number("--number", -5, 5), -5);
  EXPECT_EQ(parse({"--number", "5"}).number("--number", -5, 5), 5);
}

TEST(CommandLine, RefusesWhatIsNoNumberWithinTheBounds) {
  EXPECT_EQ(refusalOf({"--number", "6"}), "--number takes a whole number from -5 to 5, not \"6\"");
  for (const char* text : {"-6", "1.5", "1x", " 1", "", "+1", "0x1", "99999999999999999999"})
    EXPECT_EQ(refusalOf({"--number", text}),
              std::string("--number takes a whole number from -5 to 5, not \"") + text + "\"");
}

TEST(CommandLine, RefusesUnknownOptionsAndMissingValues) {
  EXPECT_EQ(refusalOf({"--nonsense"}), "unknown option --nonsense");
  EXPECT_EQ(refusalOf({"word", "--name"}), "--name lacks its value");
}

TEST(CommandLine, AValueMayFollowAnEqualsSign) {
  EXPECT_EQ(parse({"--name=a=b"}).text("--name"), "a=b");
  EXPECT_EQ(parse({"--name="}).text("--name"), "");
  EXPECT_EQ(parse({"--number=3"}).number("--number", 0, 9), 3);
  EXPECT_EQ(refusalOf({"--flag=1"}), "--flag takes no value");
  EXPECT_EQ(refusalOf({"--nonsense=1"}), "unknown option --nonsense");
}

TEST(CommandLine, TwoDashesEndTheOptions) {
  EXPECT_EQ(parse({"--name", "n", "--", "--flag", "--", "--help"}).words(),
            (std::vector<std::string>{"--flag", "--", "--help"}));
}

TEST(CommandLine, OptionsMayEndAtTheFirstWord) {
  const CommandLine line({"--name", "n", "word", "--name", "--unknown", "--help"}, {"--name"}, {},
                         CommandLine::Options::beforeFirstWord);
  EXPECT_EQ(line.text("--name"), "n");
  EXPECT_EQ(line.words(), (std::vector<std::string>{"word", "--name", "--unknown", "--help"}));
}

TEST(CommandLine, HelpIsARequestWhereverAnOptionMayStand) {
  EXPECT_THROW(parse({"word", "--help"}), HelpRequest);
  EXPECT_EQ(parse({"--name", "--help"}).text("--name"), "--help");
}

TEST(CommandLine, AFolderIsNotAnEmptyText) {
  EXPECT_EQ(parse({"--name", "a b"}).folder("--name"), "a b");
  EXPECT_EQ(parse({}).folder("--name"), std::nullopt);
  EXPECT_THROW(parse({"--name="}).folder("--name"), UsageError);
}

}  // namespace
}  // namespace corvid::tools
