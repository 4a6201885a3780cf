// What a host learns of the reasons: with states, with messages, and by itself.
#include <gtest/gtest.h>

#include "protocol/Reason.h"
#include "tests/client/Host.h"
#include "tests/client/SessionFixture.h"

namespace corvid {
namespace {

const StatesReport sending{.backends = {{"dashboard", "disabled", Reason::takesNoEvents},
                                        {"httpPost", "sending", Reason::reporting}}};

class ClientReasons : public SessionFixture {
 protected:
  void SetUp() override {
    delegate->onSession = [](RecordingSession& session, auto&) {
      session.states = Array{"httpPost"};
      session.report(sending);
      session.onMessage = [](std::uint16_t category, ResultReply reply) {
        if (category == 1) return reply("taken");
        MessageAnswer dropped;
        dropped.dropped = category == 2 ? Reason::noSessionInfo : Reason::noConsent;
        reply(dropped);
      };
    };
    start();
    root = folder.path();
    host.options.root = root.c_str();
    ASSERT_EQ(host.open(), CORVID_OK);
  }
  void TearDown() override {
    host.close();
    SessionFixture::TearDown();
  }
  void change(const StatesReport& report) {
    delegate->at(0).session->report(report);
    delegate->at(0).connection->statesMayHaveChanged();
  }

  std::string root;
  Host host;
};

TEST_F(ClientReasons, ComeWithTheStates) {
  ASSERT_EQ(host.start(), CORVID_OK);
  EXPECT_TRUE(host.await(
      "configured dashboard disabled takesNoEvents, httpPost sending reporting / 1 / 1"));
}

TEST_F(ClientReasons, OfASessionWithoutBackendsIsItsOwn) {
  delegate->onSession = [](RecordingSession& session, auto&) {
    session.report({.reason = Reason::unknownClientType});
  };
  ASSERT_EQ(host.start(), CORVID_OK);
  EXPECT_TRUE(host.await("configured unknownClientType / none / none"));
}

TEST_F(ClientReasons, TellAMessageThatWasTakenFromOneThatWasNot) {
  for (std::uint16_t category = 1; category <= 3; ++category)
    ASSERT_EQ(host.send(category), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0", 3));
  EXPECT_EQ(host.count("taken taken"), 1u);
  EXPECT_EQ(host.count("dropped noSessionInfo none"), 1u);
  EXPECT_EQ(host.count("dropped noConsent none"), 1u);
}

TEST_F(ClientReasons, AreNotThereOutsideOfACallback) {
  EXPECT_EQ(corvid_current_answer(), nullptr);
  EXPECT_EQ(corvid_answer_disposition(nullptr), CORVID_DISPOSITION_UNKNOWN);
  EXPECT_EQ(corvid_answer_reason(nullptr), nullptr);
  EXPECT_EQ(corvid_answer_states(nullptr), nullptr);
  bool isThere = true;
  host.onNote = [&](const std::string& line) {
    if (line == "finished 0") isThere = corvid_current_answer() != nullptr;
  };
  ASSERT_EQ(host.send(1), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0"));
  host.close();
  EXPECT_FALSE(isThere);
}

TEST_F(ClientReasons, ChangeAndTheHandlerHearsOfIt) {
  ASSERT_EQ(host.describe(), CORVID_OK);
  ASSERT_EQ(host.start(), CORVID_OK);
  ASSERT_TRUE(host.await("finished 0"));
  change({.backends = {{"httpPost", "disabled", Reason::disabledByServer}}});
  EXPECT_TRUE(host.await("states httpPost disabled disabledByServer / 0"));
  change({.reason = Reason::storebagUnreachable});
  EXPECT_TRUE(host.await("states storebagUnreachable / none"));
  EXPECT_EQ(host.count("states dashboard disabled takesNoEvents, httpPost sending reporting / 1"),
            0u)
      << "that came with the answer";
}

TEST_F(ClientReasons, OfChangesAreNotAskedForWithoutAHandler) {
  Host silent;
  silent.options.root = root.c_str();
  silent.options.states_changed = nullptr;
  ASSERT_EQ(silent.open(), CORVID_OK);
  ASSERT_EQ(silent.describe(), CORVID_OK);
  ASSERT_EQ(silent.send(1), CORVID_OK);
  ASSERT_TRUE(silent.await("finished 0"));
  change({.backends = {{"httpPost", "disabled", Reason::disabledByServer}}});
  ASSERT_EQ(silent.send(1), CORVID_OK);
  ASSERT_TRUE(silent.await("finished 0", 2));
  silent.close();
  for (const std::string& line : silent.lines()) EXPECT_FALSE(line.starts_with("states")) << line;
}

TEST(Reasons, HaveATextInEnglish) {
  for (const ReasonText& reason : reasonTexts) {
    const char* const text = corvid_reason_text(reason.word.data());
    ASSERT_NE(text, nullptr) << reason.word;
    EXPECT_EQ(text, reason.what);
  }
  EXPECT_EQ(corvid_reason_text("noSuchWord"), nullptr);
  EXPECT_EQ(corvid_reason_text(nullptr), nullptr);
}

TEST(StatesObjects, AreCopiedAndOutliveWhatTheyCameFrom) {
  corvid_states_t* const states = corvid_states_create();
  EXPECT_EQ(corvid_states_reporting(states), nullptr);
  ASSERT_EQ(corvid_states_add(states, "httpPost", "held", "sampledOut"), CORVID_OK);
  ASSERT_EQ(corvid_states_add(states, "metrix", "disabled", "noAdaptor"), CORVID_OK);
  corvid_states_t* const copy = corvid_states_copy(states);
  corvid_states_destroy(states);
  EXPECT_EQ(Host::textOf(copy), "httpPost held sampledOut, metrix disabled noAdaptor / 1");
  ASSERT_EQ(corvid_states_set_reason(copy, "noBackendMade"), CORVID_OK);
  EXPECT_STREQ(corvid_states_reason(copy), "noBackendMade");
  ASSERT_EQ(corvid_states_set_reason(copy, nullptr), CORVID_OK);
  EXPECT_EQ(corvid_states_reason(copy), nullptr);
  corvid_states_destroy(copy);
}

TEST(StatesObjects, RefuseWhatIsNotThere) {
  EXPECT_EQ(corvid_states_reason(nullptr), nullptr);
  EXPECT_EQ(corvid_states_count(nullptr), 0u);
  EXPECT_EQ(corvid_states_backend_name(nullptr, 0), nullptr);
  EXPECT_EQ(corvid_states_reporting(nullptr), nullptr);
  EXPECT_EQ(corvid_states_copy(nullptr), nullptr);
  corvid_states_destroy(nullptr);
  corvid_states_t* const states = corvid_states_create();
  EXPECT_EQ(corvid_states_backend_state(states, 0), nullptr);
  EXPECT_EQ(corvid_states_add(nullptr, "a", "b", "c"), CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_states_add(states, "a", nullptr, "c"), CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_states_add(states, "a", "\xff", "c"), CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(corvid_states_set_reason(states, "\xff"), CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(corvid_states_set_reason(nullptr, "a"), CORVID_ERROR_INVALID_ARGUMENT);
  corvid_states_destroy(states);
}

}  // namespace
}  // namespace corvid
