#include <gtest/gtest.h>

#include <string>

#include "protocol/Reply.h"

namespace corvid {
namespace {

struct RecordingSink final : ReplySink<std::string> {
  RecordingSink(std::string& record) : recorded(record) {}
  ~RecordingSink() override {
    if (!answered) recorded = "unanswered";
  }
  void answer(std::string text) override {
    answered = true;
    recorded = std::move(text);
  }
  std::string& recorded;
  bool answered = false;
};

TEST(Reply, AnswersOnce) {
  std::string recorded;
  Reply<std::string> reply(std::make_unique<RecordingSink>(recorded));
  EXPECT_TRUE(static_cast<bool>(reply));
  reply("first");
  EXPECT_FALSE(static_cast<bool>(reply));
  reply("second");
  EXPECT_EQ(recorded, "first");
}

TEST(Reply, TellsTheTransportWhenDroppedUnanswered) {
  std::string recorded;
  { Reply<std::string> reply(std::make_unique<RecordingSink>(recorded)); }
  EXPECT_EQ(recorded, "unanswered");
}

TEST(Reply, WithoutACallbackAnswersNobody) {
  Reply<std::string> reply;
  EXPECT_FALSE(static_cast<bool>(reply));
  reply("ignored");
}

}  // namespace
}  // namespace corvid
