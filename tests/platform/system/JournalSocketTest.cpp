#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <optional>

#include "platform/system/JournalSocket.h"
#include "tests/fakes/FakeJournal.h"
#include "tests/support/Scratch.h"

namespace corvid {
namespace {

using std::chrono::steady_clock;

class JournalSocketTest : public testing::Test {
 protected:
  int send(std::string_view message) {
    std::string entry;
    appendJournalField(entry, "MESSAGE", message);
    return socket.send(entry);
  }
  // Until the journal takes nothing more.
  int fill() {
    int error = 0;
    for (int i = 0; i < 100'000 && error == 0; ++i) error = send("again");
    return error;
  }

  ScratchRoot root;
  const std::string path = root.path("journal");
  JournalSocket socket{path};
};

TEST_F(JournalSocketTest, WithoutAJournalNothingIsThere) {
  EXPECT_FALSE(socket.isThere());
  EXPECT_EQ(send("lost"), ENOENT);
}

TEST_F(JournalSocketTest, AnEntryIsOneDatagram) {
  FakeJournal journal(path);
  EXPECT_TRUE(socket.isThere());
  EXPECT_EQ(send("one"), 0);
  EXPECT_EQ(send("two\nlines"), 0);
  EXPECT_EQ(journal.take(), (FakeJournal::Entry{{"MESSAGE", "one"}}));
  EXPECT_EQ(journal.take(), (FakeJournal::Entry{{"MESSAGE", "two\nlines"}}));
  EXPECT_EQ(journal.take(), std::nullopt);
}

TEST_F(JournalSocketTest, AJournalThatHasComeBackTakesTheNextEntry) {
  std::optional<FakeJournal> journal(std::in_place, path);
  EXPECT_EQ(send("one"), 0);
  journal.reset();
  EXPECT_EQ(send("lost"), ECONNREFUSED);
  journal.emplace(path);
  EXPECT_EQ(send("two"), 0);
  EXPECT_EQ(journal->take(), (FakeJournal::Entry{{"MESSAGE", "two"}}));
}

TEST_F(JournalSocketTest, AnEntryIsNotLostWhereTheJournalWasReplacedBeforeIt) {
  std::optional<FakeJournal> journal(std::in_place, path);
  EXPECT_EQ(send("one"), 0);
  journal.reset();
  journal.emplace(path);
  EXPECT_EQ(send("two"), 0);
  EXPECT_EQ(journal->take(), (FakeJournal::Entry{{"MESSAGE", "two"}}));
}

TEST_F(JournalSocketTest, AJournalThatTakesNothingHoldsUpOneEntryAndNotThoseAfterIt) {
  FakeJournal journal(path);
  ASSERT_EQ(fill(), EAGAIN);
  const auto start = steady_clock::now();
  for (int i = 0; i < 100; ++i) EXPECT_EQ(send("lost"), EAGAIN);
  EXPECT_LT(steady_clock::now() - start, 100 * JournalSocket::patience / 10);
  ASSERT_TRUE(journal.take());
  EXPECT_EQ(send("one more"), 0);
  const auto then = steady_clock::now();
  EXPECT_EQ(send("lost"), EAGAIN) << "full again";
  EXPECT_GE(steady_clock::now() - then, JournalSocket::patience);
}

}  // namespace
}  // namespace corvid
