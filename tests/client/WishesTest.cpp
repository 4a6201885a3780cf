// Wishes that survive a daemon that is not there, and answers that do not come in time.
#include <gtest/gtest.h>

#include <chrono>
#include <mutex>

#include "tests/client/Host.h"
#include "tests/client/SessionFixture.h"

namespace corvid {
namespace {

class ClientWishes : public SessionFixture {
 protected:
  void SetUp() override {
    root = folder.path();
    host.options.root = root.c_str();
  }
  void TearDown() override {
    host.close();
    SessionFixture::TearDown();
  }
  std::vector<std::string> callsOf(std::size_t connection) {
    std::vector<std::string> names;
    for (const auto& call : delegate->at(connection).session->calls()) names.push_back(call.name);
    return names;
  }

  std::string root;
  Host host;
};

using Names = std::vector<std::string>;

TEST_F(ClientWishes, ThatWereRefusedAreAppliedAtTheFirstConnectionBeforeAnythingElse) {
  ASSERT_EQ(host.open(), CORVID_OK);
  EXPECT_EQ(host.describe(7), CORVID_ERROR_NOT_CONNECTED);
  EXPECT_EQ(host.describe(8), CORVID_ERROR_NOT_CONNECTED);
  EXPECT_EQ(host.start(), CORVID_ERROR_NOT_CONNECTED);
  EXPECT_EQ(host.send(), CORVID_ERROR_NOT_CONNECTED);
  EXPECT_EQ(host.flush(), CORVID_ERROR_NOT_CONNECTED);
  start();
  ASSERT_EQ(host.send(9), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0"));
  EXPECT_TRUE(host.await("connected"));
  EXPECT_EQ(callsOf(0), (Names{"setSessionInfo", "startConfig", "sendMessage"}));
  const auto calls = delegate->at(0).session->calls();
  EXPECT_EQ(calls[0].dictionary, (Dictionary{{"ClientType", 8}}));
  EXPECT_FALSE(calls[1].replyWanted);
  EXPECT_EQ(calls[2].category, 9);
  EXPECT_EQ(host.count("reconnected"), 0u);
  EXPECT_EQ(host.count("finished 3"), 0u) << "callbacks of refused calls are not called";
}

TEST_F(ClientWishes, AreAppliedWhereOnlyAConnectionIsMade) {
  ASSERT_EQ(host.open(), CORVID_OK);
  EXPECT_EQ(host.describe(), CORVID_ERROR_NOT_CONNECTED);
  start();
  ASSERT_EQ(corvid_session_connect(host.session), CORVID_OK);
  EXPECT_TRUE(host.await("connected"));
  EXPECT_EQ(callsOf(0), Names{"setSessionInfo"});
}

TEST_F(ClientWishes, IncludeTheUserInfoOfARefusedFetch) {
  ASSERT_EQ(host.open(), CORVID_OK);
  host.describe();
  corvid_dictionary_t* const user = corvid_dictionary_create();
  corvid_dictionary_set_string(user, CORVID_KEY_CLIENT_NAME, "Late");
  EXPECT_EQ(corvid_session_fetch_states(host.session, user, nullptr, nullptr, nullptr),
            CORVID_ERROR_NOT_CONNECTED);
  corvid_dictionary_destroy(user);
  start();
  ASSERT_EQ(corvid_session_connect(host.session), CORVID_OK);
  ASSERT_TRUE(host.await("connected"));
  const auto calls = delegate->at(0).session->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].userInfo, (Dictionary{{"_clientName", "Late"}}));
}

TEST_F(ClientWishes, ThatAreNoneAreNotTold) {
  start();
  ASSERT_EQ(host.open(), CORVID_OK);
  ASSERT_EQ(host.send(1), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0"));
  EXPECT_TRUE(host.await("connected"));
  EXPECT_EQ(callsOf(0), Names{"sendMessage"});
}

TEST_F(ClientWishes, AreToldToEachConnectionAndTheHostHearsOfIt) {
  start();
  ASSERT_EQ(host.open(), CORVID_OK);
  ASSERT_EQ(host.describe(), CORVID_OK);
  ASSERT_EQ(host.start(), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0"));
  stop();
  ASSERT_TRUE(host.await("invalidated"));
  EXPECT_EQ(host.describe(9), CORVID_ERROR_NOT_CONNECTED);
  start();
  ASSERT_EQ(host.send(1), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0", 2));
  EXPECT_EQ(host.count("reconnected"), 1u);
  EXPECT_EQ(host.count("connected"), 2u);
  EXPECT_EQ(callsOf(1), (Names{"setSessionInfo", "startConfig", "sendMessage"}));
  EXPECT_EQ(delegate->at(1).session->calls()[0].dictionary, (Dictionary{{"ClientType", 9}}));
}

TEST_F(ClientWishes, ThatMayNotTravelAreNotRemembered) {
  ASSERT_EQ(host.open(), CORVID_OK);
  corvid_dictionary_t* const large = corvid_dictionary_create();
  const std::string bytes(limits::sessionInfoBytes, 'x');
  corvid_dictionary_set_data(large, "filling", bytes.data(), bytes.size());
  EXPECT_EQ(corvid_session_set_session_info(host.session, large, nullptr, nullptr, false, nullptr,
                                            nullptr),
            CORVID_ERROR_TOO_LARGE);
  corvid_dictionary_destroy(large);
  start();
  ASSERT_EQ(host.send(1), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0"));
  EXPECT_EQ(callsOf(0), Names{"sendMessage"});
}

// A daemon that keeps what it is asked.
class AnswerDeadline : public ClientWishes {
 protected:
  void SetUp() override {
    ClientWishes::SetUp();
    host.options.answer_deadline_ms = 50;
    delegate->onSession = [this](RecordingSession& session, auto&) {
      session.onMessage = [this](std::uint16_t category, ResultReply reply) {
        const std::lock_guard lock(mutex);
        if (category != 1 || released) return reply(category == 1 ? "late" : "prompt");
        kept.push_back(std::move(reply));
      };
    };
    start();
    ASSERT_EQ(host.open(), CORVID_OK);
  }
  void TearDown() override {
    release();
    ClientWishes::TearDown();
  }
  void release() {
    const std::lock_guard lock(mutex);
    released = true;
    for (ResultReply& reply : kept) reply("late");
    kept.clear();
  }

  std::mutex mutex;
  std::vector<ResultReply> kept;
  bool released = false;
};

TEST_F(AnswerDeadline, EndsACallThatIsNotAnsweredAndTheConnectionGoesOn) {
  const auto begin = std::chrono::steady_clock::now();
  ASSERT_EQ(host.send(1), CORVID_OK);
  ASSERT_TRUE(host.await("finished 3"));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
  EXPECT_EQ(host.count("error 15"), 1u);
  ASSERT_EQ(host.send(2), CORVID_OK);
  EXPECT_TRUE(host.await("taken prompt"));
  EXPECT_EQ(host.count("invalidated"), 0u);
}

TEST_F(AnswerDeadline, DropsAnAnswerThatComesLater) {
  ASSERT_EQ(host.send(1), CORVID_OK);
  ASSERT_TRUE(host.await("finished 3"));
  release();
  ASSERT_EQ(host.send(2), CORVID_OK);
  ASSERT_TRUE(host.await("taken prompt"));
  EXPECT_EQ(host.count("taken late"), 0u);
  EXPECT_EQ(host.count("finished 3"), 1u);
}

TEST_F(AnswerDeadline, EndsCallsThatStillWaitInTheQueue) {
  // Four batches leave; the daemon answers none of them, and the rest waits.
  for (int i = 0; i < 1000; ++i) ASSERT_EQ(host.send(1), CORVID_OK);
  EXPECT_TRUE(host.await("finished 3", 1000));
  EXPECT_EQ(host.count("error 15"), 1000u);
  release();
  EXPECT_TRUE(delegate->at(0).session->awaitCalls(1000)) << "they travel all the same";
}

TEST_F(AnswerDeadline, DoesNotConcernCallsThatAreAnsweredInTime) {
  for (int i = 0; i < 200; ++i) ASSERT_EQ(host.send(2), CORVID_OK);
  ASSERT_TRUE(host.await("taken prompt", 200));
  EXPECT_EQ(host.count("error 15"), 0u);
}

TEST(Errors, HaveTheirTexts) {
  EXPECT_STREQ(corvid_error_text(CORVID_ERROR_TIMED_OUT), "not answered in time");
}

}  // namespace
}  // namespace corvid
