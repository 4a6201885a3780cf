// Losing the daemon and finding it again; threads, deadlines and the end of a session.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <thread>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"
#include "client/Session.h"
#include "tests/client/SessionFixture.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

using client::Session;
using client::Status;

class ClientConnection : public SessionFixture {
 protected:
  // The session keeps what it is asked until the test lets it go on.
  void blockEvents() {
    delegate->onSession = [this](RecordingSession& session, auto&) {
      session.onMessage = [this](std::uint16_t, ResultReply reply) {
        await([&] { return released; });
        reply("released");
      };
    };
  }
  void release() {
    note([&] { released = true; });
  }
  void TearDown() override {
    release();
    ServiceFixture::TearDown();
  }
  Session::Finished finished() {
    return [this](corvid_outcome_t outcome) { note([&] { outcomes.push_back(outcome); }); };
  }
  Session::TextCallback status() {
    return [this](Status code, auto) { note([&] { codes.push_back(code.code()); }); };
  }
  bool awaitEnded(std::size_t calls) {
    return await([&] { return outcomes.size() >= calls; });
  }

  bool released = false;
  std::vector<corvid_outcome_t> outcomes;
  std::vector<int> codes;
};

TEST_F(ClientConnection, ACallWithoutADaemonFailsAndALaterOneConnects) {
  Session session(options());
  EXPECT_EQ(session.connect().code(), CORVID_ERROR_NOT_CONNECTED);
  EXPECT_EQ(session.sendMessage(1, 1, Session::none(), status(), finished()).code(),
            CORVID_ERROR_NOT_CONNECTED);
  start();
  EXPECT_TRUE(session.sendMessage(1, 1, Session::none(), status(), finished()));
  ASSERT_TRUE(awaitEnded(1));
  EXPECT_EQ(codes, std::vector<int>{CORVID_OK});
}

TEST_F(ClientConnection, ALostConnectionEndsEveryCallOnceAndTellsTheHost) {
  blockEvents();
  start();
  int invalidated = 0;
  Session::Options chosen = options();
  chosen.invalidated = [&] { note([&] { ++invalidated; }); };
  Session session(std::move(chosen));
  for (int i = 0; i < 500; ++i)
    ASSERT_TRUE(session.sendMessage(1, 1, Session::none(), status(), finished()));
  ASSERT_TRUE(delegate->at(0).session->awaitCalls(1));
  delegate->at(0).connection->invalidate("test");
  release();
  ASSERT_TRUE(awaitEnded(500));
  ASSERT_TRUE(await([&] { return invalidated == 1; }));
  EXPECT_EQ(outcomes.size(), 500u);
  EXPECT_EQ(codes.size(), 500u);
  EXPECT_EQ(codes.back(), CORVID_ERROR_CONNECTION_LOST);
  EXPECT_EQ(outcomes.back(), CORVID_OUTCOME_FAILED);
}

TEST_F(ClientConnection, TheNextCallConnectsAgainAndWhatTheDaemonWasToldComesFirst) {
  start();
  int invalidated = 0;
  int reconnected = 0;
  Session::Options chosen = options();
  chosen.invalidated = [&] { note([&] { ++invalidated; }); };
  chosen.reconnected = [&] { note([&] { ++reconnected; }); };
  Session session(std::move(chosen));
  for (const int number : {1, 2}) {
    client::Dictionary info;
    ASSERT_TRUE(info.set(::kCorvidSessionInfoSessionID, number));
    ASSERT_TRUE(session.setSessionInfo(info, Session::none(), client::ArrayView(nullptr), true));
  }
  ASSERT_TRUE(session.startConfig());
  ASSERT_TRUE(session.sendMessage(1, 1, Session::none(), status(), finished()));
  ASSERT_TRUE(awaitEnded(1));
  stop();
  ASSERT_TRUE(await([&] { return invalidated == 1; }));
  EXPECT_EQ(session.sendMessage(2, 2).code(), CORVID_ERROR_NOT_CONNECTED);
  start();
  ASSERT_TRUE(session.sendMessage(3, 3, Session::none(), status(), finished()));
  ASSERT_TRUE(awaitEnded(2));
  EXPECT_EQ(reconnected, 1);
  EXPECT_EQ(invalidated, 1);
  const auto calls = delegate->at(1).session->calls();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[0].name, "setSessionInfo");
  EXPECT_EQ(calls[0].dictionary, (Dictionary{{"SessionID", 2}}));
  EXPECT_TRUE(calls[0].flag);
  EXPECT_EQ(calls[1].name, "startConfig");
  EXPECT_FALSE(calls[1].replyWanted);
  EXPECT_EQ(calls[2].category, 3);
}

TEST_F(ClientConnection, TheUserInfoGivenLastIsToldAgain) {
  start();
  int invalidated = 0;
  Session::Options chosen = options();
  chosen.invalidated = [&] { note([&] { ++invalidated; }); };
  Session session(std::move(chosen));
  client::Dictionary info, user, newUser;
  ASSERT_TRUE(info.set(::kCorvidSessionInfoRequireUserInfo, true));
  ASSERT_TRUE(user.set(::kCorvidUserInfoClientName, "first"));
  ASSERT_TRUE(newUser.set(::kCorvidUserInfoClientName, "second"));
  ASSERT_TRUE(session.setSessionInfo(info, user));
  ASSERT_TRUE(session.fetchStates(newUser));
  ASSERT_TRUE(session.fetchStates(Session::none()));  // the daemon keeps what it has
  ASSERT_TRUE(session.sendMessage(1, 1, Session::none(), status(), finished()));
  ASSERT_TRUE(awaitEnded(1));
  stop();
  ASSERT_TRUE(await([&] { return invalidated == 1; }));
  start();
  ASSERT_TRUE(session.sendMessage(1, 1, Session::none(), status(), finished()));
  ASSERT_TRUE(awaitEnded(2));
  const auto calls = delegate->at(1).session->calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].name, "setSessionInfo");
  EXPECT_EQ(calls[0].userInfo, (Dictionary{{"_clientName", "second"}}));
}

TEST_F(ClientConnection, AFullQueueWaitsUntilTheDeadlineAndThenRefuses) {
  blockEvents();
  start();
  Session::Options chosen = options();
  chosen.deadline = std::chrono::milliseconds(50);
  Session session(std::move(chosen));
  std::size_t accepted = 0;
  Status refused = CORVID_OK;
  while (refused && accepted < 3 * library::Session::mostQueuedCalls) {
    const auto before = std::chrono::steady_clock::now();
    refused = session.sendMessage(1, 1, Session::none(), nullptr, finished());
    if (refused) {
      ++accepted;
    } else {
      const auto waited = std::chrono::steady_clock::now() - before;
      EXPECT_GE(waited, std::chrono::milliseconds(50));
      EXPECT_LT(waited, std::chrono::seconds(10));
    }
  }
  EXPECT_EQ(refused.code(), CORVID_ERROR_QUEUE_FULL);
  EXPECT_GE(accepted, library::Session::mostQueuedCalls);
  release();
  ASSERT_TRUE(awaitEnded(accepted));
  EXPECT_TRUE(session.sendMessage(1, 1));
}

TEST_F(ClientConnection, TheQueueIsBoundedInBytes) {
  blockEvents();
  start();
  Session::Options chosen = options();
  chosen.deadline = std::chrono::milliseconds(0);
  Session session(std::move(chosen));
  ASSERT_TRUE(session.connect());
  client::Dictionary large;
  const std::string bytes(1 << 20, 'x');
  ASSERT_TRUE(large.set("data", client::Data{bytes}));
  std::size_t accepted = 0;
  Status status = CORVID_OK;
  while (accepted < 100 && (status = session.sendMessage(1, 1, large, nullptr, finished())))
    ++accepted;
  EXPECT_EQ(status.code(), CORVID_ERROR_QUEUE_FULL);
  // What the queue holds, and the few calls that may be under way.
  EXPECT_LE(accepted, 7u + 4u + 1u);
  release();
  ASSERT_TRUE(awaitEnded(accepted));
}

TEST_F(ClientConnection, RefusesWhatMayNotTravelWithoutSendingIt) {
  start();
  Session session(options());
  client::Dictionary deep;
  for (std::size_t i = 1; i < limits::valueNesting; ++i) {
    client::Dictionary outer;
    ASSERT_TRUE(outer.set("down", deep));
    deep = std::move(outer);
  }
  EXPECT_TRUE(session.sendMessage(1, 1, deep));
  client::Dictionary deeper;
  ASSERT_TRUE(deeper.set("down", deep));
  EXPECT_EQ(session.sendMessage(2, 1, deeper).code(), CORVID_ERROR_TOO_DEEP);
  client::Dictionary large;
  const std::string bytes(limits::messageBytes, 'x');
  ASSERT_TRUE(large.set("data", client::Data{bytes}));
  EXPECT_EQ(session.sendMessage(2, 1, large).code(), CORVID_ERROR_TOO_LARGE);
  client::Dictionary invalid;
  EXPECT_EQ(invalid.set("text", "\xff").code(), CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(invalid.set("\xff", 1).code(), CORVID_ERROR_INVALID_TEXT);
  EXPECT_EQ(invalid.set("date", client::Date{1e308 * 10}).code(), CORVID_ERROR_INVALID_ARGUMENT);
  EXPECT_EQ(corvid_session_send_message_with_dictionary(session.get(), nullptr, nullptr, nullptr,
                                                        nullptr),
            CORVID_ERROR_INVALID_ARGUMENT);
  ASSERT_TRUE(session.sendMessage(3, 1, Session::none(), nullptr, finished()));
  ASSERT_TRUE(awaitEnded(1));
  EXPECT_EQ(delegate->at(0).session->calls().size(), 2u);
}

TEST_F(ClientConnection, RefusesInfosAndPathsThatTheDaemonWouldNotTake) {
  start();
  Session session(options());
  const auto infoOf = [](std::size_t bytes) {
    client::Dictionary info;
    const std::string filling(bytes, 'x');
    EXPECT_TRUE(info.set("filling", client::Data{filling}));
    return info;
  };
  // A dictionary of one entry takes five words and its key one.
  const client::Dictionary most = infoOf(limits::sessionInfoBytes - 6 * 8);
  const client::Dictionary more = infoOf(limits::sessionInfoBytes - 6 * 8 + 1);
  const client::ArrayView none(nullptr);
  EXPECT_TRUE(session.setSessionInfo(most, Session::none(), none, false));
  EXPECT_TRUE(session.fetchStates(most));
  EXPECT_TRUE(session.sendSingleMessage(most, Session::none(), 1, 1, more));
  EXPECT_EQ(session.setSessionInfo(more, Session::none(), none, false).code(),
            CORVID_ERROR_TOO_LARGE);
  EXPECT_EQ(session.setSessionInfo(most, client::Dictionary(), none, false).code(),
            CORVID_ERROR_TOO_LARGE);
  EXPECT_EQ(session.fetchStates(more).code(), CORVID_ERROR_TOO_LARGE);
  EXPECT_EQ(session.sendSingleMessage(more, Session::none(), 1, 1, Session::none()).code(),
            CORVID_ERROR_TOO_LARGE);
  const std::string longest = "/" + std::string(limits::fileURLBytes - 8, 'x');
  EXPECT_TRUE(session.uploadFile(longest.c_str()));
  EXPECT_EQ(session.uploadFile((longest + "x").c_str()).code(), CORVID_ERROR_TOO_LARGE);
  ASSERT_TRUE(session.sendMessage(3, 1, Session::none(), nullptr, finished()));
  ASSERT_TRUE(awaitEnded(1));
  EXPECT_EQ(delegate->at(0).session->calls().size(), 5u);
}

TEST_F(ClientConnection, CallbacksRunOnOneThreadOfTheLibraryAndMayCallIt) {
  start();
  Session session(options());
  std::vector<std::thread::id> threads;
  std::function<void(int)> next = [&](int left) {
    note([&] { threads.push_back(std::this_thread::get_id()); });
    if (left == 0) return;
    EXPECT_TRUE(session.sendMessage(1, 1, Session::none(),
                                    [&next, left](Status, auto) { next(left - 1); }));
  };
  ASSERT_TRUE(session.sendMessage(1, 1, Session::none(), [&](Status, auto) { next(20); }));
  ASSERT_TRUE(await([&] { return threads.size() == 21; }));
  for (const auto thread : threads) {
    EXPECT_EQ(thread, threads[0]);
    EXPECT_NE(thread, std::this_thread::get_id());
  }
}

TEST_F(ClientConnection, ManyThreadsMayUseOneSession) {
  start();
  Session session(options());
  std::vector<std::thread> threads;
  for (std::uint16_t thread = 0; thread < 8; ++thread)
    threads.emplace_back([&, thread] {
      for (std::uint16_t i = 0; i < 200; ++i)
        EXPECT_TRUE(session.sendMessage(thread, i, Session::none(), nullptr, finished()));
    });
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(awaitEnded(1600));
  std::vector<int> next(8, 0);
  for (const auto& call : delegate->at(0).session->calls())
    EXPECT_EQ(call.type, next[call.category]++);
  EXPECT_EQ(next, std::vector<int>(8, 200));
}

TEST_F(ClientConnection, DestroyingASessionLetsAcceptedCallsReachTheDaemon) {
  start();
  {
    Session session(options());
    for (int i = 0; i < 300; ++i) ASSERT_TRUE(session.sendMessage(1, 1));
  }
  ASSERT_TRUE(delegate->awaitInvalidated(0));
  EXPECT_EQ(delegate->at(0).session->calls().size(), 300u);
}

TEST_F(ClientConnection, DestroyingASessionEndsWhatIsLeftAtTheDeadline) {
  blockEvents();
  start();
  {
    Session::Options chosen = options();
    chosen.deadline = std::chrono::milliseconds(20);
    Session session(std::move(chosen));
    for (int i = 0; i < 10; ++i)
      ASSERT_TRUE(session.sendMessage(1, 1, Session::none(), status(), finished()));
    ASSERT_TRUE(delegate->at(0).session->awaitCalls(1));
  }
  EXPECT_EQ(codes, std::vector<int>(10, CORVID_ERROR_CLOSED));
  EXPECT_EQ(outcomes, std::vector<corvid_outcome_t>(10, CORVID_OUTCOME_FAILED));
}

TEST_F(ClientConnection, ASessionMayBeDestroyedInItsOwnCallback) {
  start();
  bool over = false;
  struct Host {
    Notice& notice;
    corvid_session_t* session;
    bool& over;
  } host{notice, nullptr, over};
  corvid_options_t c = CORVID_OPTIONS_INIT;
  c.root = folder.path().c_str();
  c.context = &host;
  c.released = [](void* context) {
    auto* h = static_cast<Host*>(context);
    h->notice.change([&] { h->over = true; });
  };
  ASSERT_EQ(corvid_session_create(&c, &host.session), CORVID_OK);
  const auto destroy = [](void* context, int, const char*, std::size_t) {
    auto* h = static_cast<Host*>(context);
    corvid_session_destroy(std::exchange(h->session, nullptr));
  };
  ASSERT_EQ(corvid_session_send_message(host.session, 1, 1, nullptr, destroy, nullptr, &host),
            CORVID_OK);
  ASSERT_TRUE(await([&] { return over; }));
  EXPECT_TRUE(delegate->awaitInvalidated(0));
}

TEST_F(ClientConnection, AChildProcessCannotUseItsParentsSession) {
  start();
  Session session(options());
  ASSERT_TRUE(session.sendMessage(1, 1, Session::none(), nullptr, finished()));
  ASSERT_TRUE(awaitEnded(1));
  EXPECT_EQ(inChild([&] {
              const bool refused = session.sendMessage(2, 2).code() == CORVID_ERROR_FORKED &&
                                   session.connect().code() == CORVID_ERROR_FORKED;
              corvid_session_destroy(session.get());
              return refused ? 0 : 1;
            }),
            0);
  EXPECT_TRUE(session.sendMessage(3, 3));
}

TEST_F(ClientConnection, ASocketThatAStrangerServesIsNoDaemon) {
  if (getuid() != 0) GTEST_SKIP() << "takes root, to listen as another user";
  constexpr uid_t stranger = 4712;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  const Descriptor waiting(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(UnixAddress(path).bind(waiting.get()), 0);
  // The server of a socket is who began to listen.
  ASSERT_EQ(inChild([&] { return setuid(stranger) == 0 && listen(waiting.get(), 5) == 0 ? 0 : 1; }),
            0);
  Session session(options());
  EXPECT_EQ(session.connect().code(), CORVID_ERROR_NOT_CONNECTED);
  // Of a socket of their own they are the right one.
  ASSERT_EQ(chown(path.c_str(), stranger, stranger), 0);
  EXPECT_EQ(session.connect().code(), CORVID_OK);
}

}  // namespace
}  // namespace corvid
