#include <gmock/gmock.h>

#include "gateway/log/Unconfirmed.h"

namespace corvid::fleet {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class UnconfirmedTest : public ::testing::Test {
 protected:
  void add(const std::string& id, std::size_t bytes = 1) {
    (void)_messages.add(
        {.stream = "events", .id = id, .headers = {}, .body = std::string(bytes, 'x')},
        [this, id](Published outcome) {
          (outcome == Published::stored ? _stored : _unanswered).push_back(id);
        });
  }
  std::string sent() {
    std::string ids;
    while (const auto message = _messages.takeUnsent()) ids += message->id;
    return ids;
  }

  std::vector<std::string> _stored;
  std::vector<std::string> _unanswered;
  Unconfirmed _messages{std::chrono::seconds(10), 4000};
};

TEST_F(UnconfirmedTest, IsConfirmedByTheOrderOfSending) {
  for (const char* const id : {"a", "b", "c"}) add(id);
  EXPECT_EQ(sent(), "abc");
  _messages.confirm(2, false, Published::stored);
  EXPECT_THAT(_stored, ElementsAre("b"));
  _messages.confirm(3, true, Published::stored);
  EXPECT_THAT(_stored, ElementsAre("b", "a", "c"));
  EXPECT_EQ(_messages.bytes(), 0U);
}

TEST_F(UnconfirmedTest, IsSentAgainOnTheNextConnectionInItsOrder) {
  for (const char* const id : {"a", "b", "c"}) add(id);
  EXPECT_EQ(sent(), "abc");
  _messages.confirm(2, false, Published::stored);
  _messages.beginConnection();
  EXPECT_EQ(sent(), "ac");
  _messages.confirm(2, false, Published::stored);
  EXPECT_THAT(_stored, ElementsAre("b", "c"));
}

TEST_F(UnconfirmedTest, IsUnansweredOncePastItsDeadlineWhateverComesLater) {
  add("a");
  EXPECT_EQ(sent(), "a");
  _messages.expire(Unconfirmed::Clock::now() + std::chrono::seconds(9));
  EXPECT_THAT(_unanswered, IsEmpty());
  _messages.expire(Unconfirmed::Clock::now() + std::chrono::seconds(11));
  EXPECT_THAT(_unanswered, ElementsAre("a"));
  _messages.confirm(1, false, Published::stored);
  EXPECT_THAT(_stored, IsEmpty());
  EXPECT_EQ(_messages.waitingSince(), std::nullopt);
}

TEST_F(UnconfirmedTest, IsUnansweredWhereThereIsNoRoom) {
  add("a", 2000);
  add("b", 2000);
  _messages.expire(Unconfirmed::Clock::now());
  EXPECT_THAT(_unanswered, ElementsAre("b"));
  EXPECT_EQ(sent(), "a");
  _messages.confirm(1, false, Published::stored);
  add("c", 2000);
  EXPECT_EQ(sent(), "c");
}

TEST_F(UnconfirmedTest, IgnoresNumbersThatWereNeverSent) {
  add("a");
  _messages.confirm(1, true, Published::stored);
  EXPECT_EQ(sent(), "a");
  _messages.confirm(2, true, Published::stored);
  _messages.confirm(0, true, Published::stored);
  EXPECT_THAT(_stored, IsEmpty());
}

}  // namespace
}  // namespace corvid::fleet
