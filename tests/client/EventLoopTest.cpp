// Callbacks in a host's own event loop.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "client/Callbacks.h"
#include "client/Session.h"
#include "tests/client/Host.h"
#include "tests/client/SessionFixture.h"
#include "tests/support/ChildProcess.h"

namespace corvid {
namespace {

class EventLoop : public SessionFixture {
 protected:
  void SetUp() override {
    root = folder.path();
    host.options.root = root.c_str();
    host.options.dispatch = true;
  }
  void TearDown() override {
    host.close();
    SessionFixture::TearDown();
  }
  void open() {
    start();
    ASSERT_EQ(host.open(), CORVID_OK);
    fd = corvid_session_get_fd(host.session);
    ASSERT_GE(fd, 0);
  }
  bool isReadable(int milliseconds) {
    pollfd ready{fd, POLLIN, 0};
    return poll(&ready, 1, milliseconds) == 1;
  }
  // Runs the loop until the line was noted so often, or it takes too long.
  bool run(const std::string& line, std::size_t times = 1) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (host.count(line) < times && std::chrono::steady_clock::now() < until)
      if (isReadable(100)) corvid_session_dispatch(host.session);
    return host.count(line) >= times;
  }

  std::string root;
  int fd = -1;
  Host host;
};

TEST_F(EventLoop, RunsCallbacksOnTheThreadThatDispatches) {
  open();
  ASSERT_EQ(host.send(7), CORVID_OK);
  ASSERT_TRUE(isReadable(20000));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_TRUE(host.lines().empty()) << "nothing runs by itself";
  EXPECT_TRUE(run("finished 0"));
  EXPECT_EQ(host.lines(), (std::vector<std::string>{"connected", "taken sent 7", "finished 0"}));
  EXPECT_EQ(host.threads(), std::vector{std::this_thread::get_id()});
}

TEST_F(EventLoop, TheDescriptorIsReadableOnlyWhileCallbacksWait) {
  open();
  EXPECT_FALSE(isReadable(0));
  ASSERT_EQ(host.send(1), CORVID_OK);
  ASSERT_TRUE(run("finished 0"));
  EXPECT_FALSE(isReadable(0));
  ASSERT_EQ(host.send(2), CORVID_OK);
  EXPECT_TRUE(isReadable(20000));
}

TEST_F(EventLoop, WorksWithEpollInBothModes) {
  open();
  const Descriptor loop(epoll_create1(EPOLL_CLOEXEC));
  for (const std::uint32_t mode : {std::uint32_t{EPOLLIN}, std::uint32_t{EPOLLIN} | EPOLLET}) {
    epoll_event event{};
    event.events = mode;
    ASSERT_EQ(epoll_ctl(loop.get(), EPOLL_CTL_ADD, fd, &event), 0);
    const std::size_t before = host.count("finished 0");
    for (int i = 0; i < 100; ++i) ASSERT_EQ(host.send(1), CORVID_OK);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (host.count("finished 0") < before + 100 && std::chrono::steady_clock::now() < until) {
      epoll_event ready{};
      if (epoll_wait(loop.get(), &ready, 1, 1000) != 1) break;
      ASSERT_EQ(corvid_session_dispatch(host.session), CORVID_OK);
    }
    EXPECT_EQ(host.count("finished 0"), before + 100) << mode;
    ASSERT_EQ(epoll_ctl(loop.get(), EPOLL_CTL_DEL, fd, nullptr), 0);
  }
}

TEST_F(EventLoop, WhatADispatchLeavesBehindIsAnEdgeForEpoll) {
  open();
  constexpr std::size_t before = 10;
  for (std::size_t i = 0; i < before; ++i) ASSERT_EQ(host.send(1), CORVID_OK);
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // all of them are answered
  const Descriptor loop(epoll_create1(EPOLL_CLOEXEC));
  epoll_event event{};
  event.events = std::uint32_t{EPOLLIN} | EPOLLET;
  ASSERT_EQ(epoll_ctl(loop.get(), EPOLL_CTL_ADD, fd, &event), 0);
  ASSERT_EQ(epoll_wait(loop.get(), &event, 1, 1000), 1);
  // One more is answered while the dispatch runs the others.
  host.onNote = [&](const std::string& line) {
    if (line != "finished 0" || host.count(line) != 1) return;
    EXPECT_EQ(host.send(2), CORVID_OK);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  };
  ASSERT_EQ(corvid_session_dispatch(host.session), CORVID_OK);
  EXPECT_EQ(host.count("finished 0"), before);
  ASSERT_EQ(epoll_wait(loop.get(), &event, 1, 1000), 1);
  ASSERT_EQ(corvid_session_dispatch(host.session), CORVID_OK);
  EXPECT_EQ(host.count("finished 0"), before + 1);
}

TEST_F(EventLoop, CallbacksMayCallTheLibraryAndDispatchInOneDoesNothing) {
  open();
  int left = 5;
  host.onNote = [&](const std::string& line) {
    if (line != "finished 0") return;
    EXPECT_EQ(corvid_session_dispatch(host.session), CORVID_OK);
    if (--left > 0) {
      EXPECT_EQ(host.send(1), CORVID_OK);
    }
  };
  ASSERT_EQ(host.send(1), CORVID_OK);
  EXPECT_TRUE(run("finished 0", 5));
}

TEST_F(EventLoop, TellsOfALostConnectionAndOfStates) {
  open();
  ASSERT_EQ(host.describe(), CORVID_OK);
  ASSERT_TRUE(run("connected"));
  ASSERT_TRUE(delegate->at(0).session->awaitCalls(1));
  delegate->at(0).session->report({.reason = Reason::storebagMalformed});
  delegate->at(0).connection->statesMayHaveChanged();
  EXPECT_TRUE(run("states storebagMalformed / none"));
  stop();
  EXPECT_TRUE(run("invalidated"));
}

TEST_F(EventLoop, DestroyingRunsWhatIsLeftOnTheCallersThread) {
  open();
  for (int i = 0; i < 100; ++i) ASSERT_EQ(host.send(1), CORVID_OK);
  host.close();
  EXPECT_EQ(host.count("finished 0"), 100u);
  EXPECT_EQ(host.lines().back(), "released");
  EXPECT_EQ(host.threads(), std::vector{std::this_thread::get_id()});
}

TEST_F(EventLoop, ASessionMayBeDestroyedInACallbackOfDispatch) {
  open();
  host.onNote = [&](const std::string& line) {
    if (line == "finished 0") host.close();
  };
  for (int i = 0; i < 100; ++i) ASSERT_EQ(host.send(1), CORVID_OK);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (host.session != nullptr && std::chrono::steady_clock::now() < until)
    if (isReadable(100)) corvid_session_dispatch(host.session);
  EXPECT_EQ(host.session, nullptr);
  EXPECT_EQ(host.lines().back(), "released") << "before dispatch returned";
  EXPECT_EQ(host.count("finished 0") + host.count("finished 3"), 100u);
  EXPECT_EQ(host.threads(), std::vector{std::this_thread::get_id()});
}

TEST_F(EventLoop, AHostThatDoesNotDispatchIsHeldBackAndLosesNothing) {
  host.options.deadline_ms = 50;
  open();
  std::size_t accepted = 0;
  int result = CORVID_OK;
  constexpr std::size_t moreThanAnyBox = 60000;
  while (accepted < moreThanAnyBox && (result = host.send(1)) == CORVID_OK) ++accepted;
  EXPECT_EQ(result, CORVID_ERROR_QUEUE_FULL);
  // What waits to be called back, what was under way, and what the queue holds.
  EXPECT_LE(accepted,
            library::Callbacks::mostWaiting + 5 * 64 + 2 * 64 + library::Session::mostQueuedCalls);
  EXPECT_TRUE(run("finished 0", accepted));
  EXPECT_EQ(host.send(1), CORVID_OK);
  EXPECT_TRUE(run("finished 0", accepted + 1));
}

TEST_F(EventLoop, DeliveriesWaitForAHostThatDoesNotDispatchAndAreBounded) {
  open();
  ASSERT_EQ(host.send(1), CORVID_OK);
  ASSERT_TRUE(run("finished 0"));
  const auto proxy =
      delegate->at(0).connection->remoteObjectProxyWithErrorHandler([](const std::string&) {});
  constexpr std::size_t rounds = 40;
  constexpr std::size_t each = 500;
  for (std::size_t round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < each; ++i)
      proxy->sendMessageToClient(std::nullopt, 1, 3, 1, Dictionary{{"number", i}});
    // For the library to read them: what finds the connection full is let go.
    std::this_thread::sleep_for(std::chrono::milliseconds(25));
  }
  // One dispatch runs what waits: the box, and what a last message from the daemon brought.
  constexpr std::size_t most = library::Callbacks::mostWaiting + 2 * limits::deliveriesWaiting;
  static_assert(most < rounds * each);
  const std::string line = "message 3 without payload";
  ASSERT_EQ(corvid_session_dispatch(host.session), CORVID_OK);
  EXPECT_LE(host.count(line), most);
  EXPECT_GE(host.count(line), library::Callbacks::mostWaiting);
  ASSERT_EQ(host.send(1), CORVID_OK);
  EXPECT_TRUE(run("finished 0", 2)) << "it goes on";
}

TEST_F(EventLoop, IsThereOnlyForSessionsThatAskedForIt) {
  EXPECT_EQ(corvid_session_get_fd(nullptr), -1);
  EXPECT_EQ(corvid_session_dispatch(nullptr), CORVID_ERROR_INVALID_ARGUMENT);
  host.options.dispatch = false;
  ASSERT_EQ(host.open(), CORVID_OK);
  EXPECT_EQ(corvid_session_get_fd(host.session), -1);
  EXPECT_EQ(corvid_session_dispatch(host.session), CORVID_ERROR_INVALID_ARGUMENT);
}

TEST_F(EventLoop, IsNotForAChildProcess) {
  open();
  EXPECT_EQ(
      inChild([&] { return corvid_session_dispatch(host.session) == CORVID_ERROR_FORKED ? 0 : 1; }),
      0);
}

TEST_F(EventLoop, SeveralThreadsMayDispatchAndEachCallbackRunsOnce) {
  open();
  std::vector<std::thread> threads;
  std::atomic<bool> over = false;
  for (int i = 0; i < 4; ++i)
    threads.emplace_back([&] {
      while (!over) corvid_session_dispatch(host.session);
    });
  for (int i = 0; i < 500; ++i) EXPECT_EQ(host.send(1), CORVID_OK);
  EXPECT_TRUE(host.await("finished 0", 500));
  over = true;
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(host.count("finished 0"), 500u);
}

}  // namespace
}  // namespace corvid
