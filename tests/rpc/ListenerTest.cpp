#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "base/Sanitizer.h"
#include "protocol/Limits.h"
#include "rpc/IPCListener.h"
#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/WireClient.h"

namespace corvid {
namespace {

using Listener = ServiceFixture;

PeerEntitlements noEntitlements(int) {
  return [] { return Dictionary(); };
}

std::size_t openDescriptors() {
  std::size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
    ++count;
  return count;
}

TEST_F(Listener, MakesAFolderAndASocketForEverybody) {
  start();
  struct stat file {};
  ASSERT_EQ(stat(path.c_str(), &file), 0);
  EXPECT_TRUE(S_ISSOCK(file.st_mode));
  EXPECT_EQ(file.st_mode & 07777, 0666u);
}

TEST_F(Listener, RemovesItsSocketAtTheEnd) {
  start();
  EXPECT_TRUE(std::filesystem::exists(path));
  stop();
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(Listener, LeavesASocketThatIsNoLongerItsOwn) {
  start();
  std::filesystem::remove(path);
  const auto other = ServiceSocket::bind(path);
  ASSERT_TRUE(other);
  stop();
  EXPECT_TRUE(std::filesystem::exists(path));
}

TEST_F(Listener, ReplacesAStaleSocket) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  {
    Descriptor stale(socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(UnixAddress(path).bind(stale.get()), 0);
  }
  ASSERT_TRUE(std::filesystem::exists(path));
  start();
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
}

TEST_F(Listener, FailsWhereTheSocketIsServed) {
  start();
  const auto second =
      IPCListener::serving(ServiceSocket::bind(path), noEntitlements, {tokens, budgets});
  ASSERT_FALSE(second);
  EXPECT_EQ(second.failure().message, "Another process serves " + path);
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
}

TEST_F(Listener, LeavesAFileThatIsNoSocket) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path) << "precious";
  const auto bound = ServiceSocket::bind(path);
  ASSERT_FALSE(bound);
  EXPECT_EQ(std::filesystem::file_size(path), 8u);
}

TEST_F(Listener, FailsWhereThePathIsTooLong) {
  const auto bound = ServiceSocket::bind(folder.path() + "/" + std::string(200, 'x'));
  ASSERT_FALSE(bound);
  EXPECT_EQ(bound.failure().code, ENAMETOOLONG);
}

TEST_F(Listener, TakesOverASocketThatListens) {
  Descriptor inherited(socket(AF_UNIX, SOCK_STREAM, 0));
  const std::string place = folder.path() + "/inherited";
  ASSERT_EQ(UnixAddress(place).bind(inherited.get()), 0);
  ASSERT_EQ(listen(inherited.get(), 5), 0);
  auto adopted = IPCListener::serving(ServiceSocket::adopt(Descriptor(dup(inherited.get()))),
                                      noEntitlements, {tokens, budgets});
  ASSERT_TRUE(adopted) << adopted.failure().message;
  adopted.value()->resume(delegate);
  {
    WireClient client(place);
    EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
  }
  adopted.value() = nullptr;
  EXPECT_TRUE(std::filesystem::exists(place)) << "it belongs to whoever made it";
}

TEST_F(Listener, RefusesToTakeOverAnythingElse) {
  int pair[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  EXPECT_FALSE(ServiceSocket::adopt(Descriptor(pair[0])));
  EXPECT_FALSE(ServiceSocket::adopt(Descriptor(pair[1])));
  EXPECT_FALSE(ServiceSocket::adopt(Descriptor(-1)));
}

TEST_F(Listener, AsksTheDelegateWithTheEntitlementsOfThePeer) {
  delegate->onSession = [](RecordingSession&, const std::shared_ptr<Connection>& connection) {
    EXPECT_EQ(connection->valueForEntitlement("com.halcyon.private.corvidd"), Value(true));
    EXPECT_EQ(connection->valueForEntitlement("com.halcyon.other"), std::nullopt);
    EXPECT_EQ(connection->description(), "connection 1 of process " + std::to_string(getpid()) +
                                             ", user " + std::to_string(getuid()));
  };
  start();
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
}

TEST_F(Listener, ClosesAConnectionThatTheDelegateRefuses) {
  delegate->refuse = true;
  start();
  EXPECT_TRUE(RawClient(path).awaitClosed());
  delegate->refuse = false;
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
  EXPECT_EQ(delegate->accepted.size(), 1u);
}

TEST_F(Listener, SurvivesADelegateThatThrows) {
  int asked = 0;
  delegate->onSession = [&](RecordingSession&, auto&) {
    if (++asked == 1) throw std::runtime_error("no session");
  };
  start();
  EXPECT_TRUE(RawClient(path).awaitClosed());
  EXPECT_EQ(log.texts(LogLevel::error).size(), 1u);
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
}

TEST_F(Listener, InvalidateClosesWithOneLineThatSaysWhy) {
  start();
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
  const auto connection = delegate->at(0).connection;
  connection->invalidate("session limit");
  connection->invalidate("again");
  ASSERT_TRUE(delegate->awaitInvalidated(0));
  client.awaitClosed();
  EXPECT_EQ(log.texts(LogLevel::warning),
            std::vector{"IPCConnection: Closing " + connection->description() + ": session limit"});
}

TEST_F(Listener, InvalidateInTheMiddleOfACallEndsTheConnectionAfterIt) {
  delegate->onSession = [](RecordingSession& session,
                           const std::shared_ptr<Connection>& connection) {
    session.onMessage = [weak = std::weak_ptr(connection)](std::uint16_t, ResultReply reply) {
      weak.lock()->invalidate("enough");
      reply("last words");
    };
  };
  start();
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "last words");
  client.awaitClosed();
  EXPECT_TRUE(delegate->awaitInvalidated(0));
}

TEST_F(Listener, HoldsAsManyConnectionsOfAUserAsTheLimit) {
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = descriptors.rlim_max;
  setrlimit(RLIMIT_NOFILE, &descriptors);
  start();
  std::vector<RawClient> clients;
  for (std::size_t i = 0; i < limits::connectionsPerUser; ++i) clients.emplace_back(path);
  delegate->at(limits::connectionsPerUser - 1);
  EXPECT_TRUE(log.texts(LogLevel::warning).empty());
  EXPECT_EQ(listener->connections(), limits::connectionsPerUser);
  RawClient oneMore(path);
  EXPECT_TRUE(oneMore.awaitClosed());
  EXPECT_EQ(log.texts(LogLevel::warning),
            std::vector{"IPCListener: Process " + std::to_string(getpid()) + ", user " +
                        std::to_string(getuid()) +
                        " opened more than 256 connections of one user; closing it"});
  clients.pop_back();
  ASSERT_TRUE(delegate->awaitInvalidated(limits::connectionsPerUser - 1));
  // The place is free once the thread is gone.
  EXPECT_TRUE(waitUntil([&] { return listener->connections() < limits::connectionsPerUser; }));
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
}

TEST_F(Listener, WaitsOutALackOfDescriptors) {
  if (hasAddressSanitizer) GTEST_SKIP() << "the sanitizer itself needs descriptors";
  start();
  {
    WireClient client(path);
    EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
  }
  ASSERT_TRUE(delegate->awaitInvalidated(0));
  // The socket is made before the descriptors run out; only the daemon's side is missing.
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  rlimit few = before;
  few.rlim_cur = openDescriptors() + 10;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  std::vector<Descriptor> taken;
  do taken.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
  while (taken.back());
  ASSERT_EQ(UnixAddress(path).connect(socket.get()), 0);
  EXPECT_TRUE(waitUntil([&] {
    return log.anyContains("IPCListener: Accepting a connection failed, trying again: ");
  }));
  taken.clear();
  setrlimit(RLIMIT_NOFILE, &before);
  delegate->at(1);
  WireClient client(path);
  EXPECT_EQ(sendEvent(client, 1, 1), "sent 1");
  EXPECT_EQ(log.texts(LogLevel::error).size(), 1u) << "one line for the whole time";
}

TEST_F(Listener, AThousandConnectionsComeAndGoWithoutALeak) {
  delegate->keepSessions = false;
  start();
  { WireClient client(path); }
  delegate->awaitInvalidated(0);
  const std::size_t before = openDescriptors();
  for (std::size_t i = 1; i <= 1000; ++i) {
    if (i % 2 == 0) {
      WireClient client(path);
      sendEvent(client, 1, 1);
    } else {
      RawClient client(path);
    }
    if (i % 50 == 0) {
      ASSERT_TRUE(delegate->awaitInvalidated(i));
    }
  }
  EXPECT_TRUE(waitUntil([&] { return listener->connections() == 0; }));
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(Listener, EndsWithConnectionsOpen) {
  start();
  WireClient first(path);
  RawClient second(path);
  EXPECT_EQ(sendEvent(first, 1, 1), "sent 1");
  delegate->at(1);
  stop();
  EXPECT_TRUE(delegate->awaitInvalidated(0));
  EXPECT_TRUE(delegate->awaitInvalidated(1));
  first.awaitClosed();
  EXPECT_TRUE(second.awaitClosed());
  EXPECT_TRUE(log.texts(LogLevel::warning).empty());
}

}  // namespace
}  // namespace corvid
