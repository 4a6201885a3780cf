#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <vector>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"
#include "platform/system/JournalPowerLog.h"
#include "tests/fakes/CapturedLog.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using namespace std::string_literals;

class JournalPowerLogTest : public testing::Test {
 protected:
  // From then on there is a journal.
  void openJournal() {
    _journal = Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    ASSERT_EQ(UnixAddress(_path).bind(_journal.get()), 0);
  }
  // What the journal gets for this payload.
  std::string entryFor(const Dictionary& payload) {
    JournalPowerLog(_path).logRegisteredEvent(28, "Cobaltd-CVD", payload);
    std::string entry(256 << 10, '\0');
    const ssize_t size = recv(_journal.get(), entry.data(), entry.size(), 0);
    entry.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return entry;
  }

  CapturedLog log;
  ScratchRoot _root;
  const std::string _path = _root.path("journal");
  Descriptor _journal;
};

const std::string head =
    "MESSAGE=Cobaltd-CVD\nPRIORITY=6\nSYSLOG_IDENTIFIER=corvidd\nCORVID_SUBSYSTEM=28\n"
    "CORVID_EVENT_NAME=Cobaltd-CVD\n";

TEST_F(JournalPowerLogTest, AnEventIsOneEntryWithAFieldForEachKey) {
  openJournal();
  EXPECT_EQ(entryFor({{"method", 7}, {"respCode", 2}, {"ratio", 0.5}, {"on", true}}),
            head + "CORVID_METHOD=7\nCORVID_RESPCODE=2\nCORVID_RATIO=0.5\nCORVID_ON=1\n");
}

TEST_F(JournalPowerLogTest, ContainersDatesAndBytesStandAsInLogLines) {
  openJournal();
  EXPECT_EQ(entryFor({{"list", Array{1, "two"}},
                      {"map", Dictionary{{"a", 1}}},
                      {"when", Date{1700000000}},
                      {"text", "\xc3\xa9"}}),
            head +
                "CORVID_LIST=[1,\"two\"]\nCORVID_MAP={\"a\":1}\n"
                "CORVID_WHEN=2023-11-14 22:13:20 +0000\nCORVID_TEXT=\xc3\xa9\n");
}

TEST_F(JournalPowerLogTest, AValueOfSeveralLinesHasItsLengthBeforeIt) {
  openJournal();
  EXPECT_EQ(entryFor({{"text", "a\nPRIORITY=0"}}),
            head + "CORVID_TEXT\n\x0c\0\0\0\0\0\0\0a\nPRIORITY=0\n"s);
}

TEST_F(JournalPowerLogTest, FieldNamesHoldWhatTheJournalAllows) {
  EXPECT_EQ(JournalPowerLog::fieldName("_aZ09-\xc3\xa9=\n"), "CORVID__AZ09_____");
  EXPECT_EQ(JournalPowerLog::fieldName(""), "CORVID_");
  EXPECT_EQ(JournalPowerLog::fieldName(std::string(100, 'k')), "CORVID_" + std::string(57, 'K'));
}

TEST_F(JournalPowerLogTest, WhatHasNoRoomIsLeftOutAndCounted) {
  openJournal();
  const std::string long1(40 << 10, 'x'), long2(30 << 10, 'y');
  const std::string entry =
      entryFor({{"first", long1}, {"second", long2}, {"third", long2}, {"last", 1}});
  EXPECT_LE(entry.size(), JournalPowerLog::mostBytes);
  EXPECT_THAT(entry, EndsWith("CORVID_LAST=1\nCORVID_OMITTED=2\n"));
  EXPECT_THAT(entry, testing::Not(HasSubstr("CORVID_SECOND")));
}

TEST_F(JournalPowerLogTest, WithoutAJournalNothingHappens) {
  JournalPowerLog(_path).logRegisteredEvent(28, "Cobaltd-CVD", {{"a", 1}});
  EXPECT_THAT(log.texts(LogLevel::warning), IsEmpty());
}

TEST_F(JournalPowerLogTest, AJournalThatTakesNothingLosesTheEventWithAWarning) {
  openJournal();
  _journal.reset();  // the socket's file stays
  JournalPowerLog(_path).logRegisteredEvent(28, "Cobaltd-CVD", {{"a", 1}});
  EXPECT_THAT(log.texts(LogLevel::warning),
              ElementsAre("Power log: the event Cobaltd-CVD is lost: Connection refused"));
}

}  // namespace
}  // namespace corvid
