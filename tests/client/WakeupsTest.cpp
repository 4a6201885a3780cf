// Which threads and messages a call takes, seen by a daemon that answers when the test says so.
#include <capnp/rpc.capnp.h>
#include <capnp/serialize.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/Descriptor.h"
#include "rpc/ServiceSocket.h"
#include "tests/client/SessionFixture.h"

namespace corvid {
namespace {

using capnp::rpc::Message;
using client::Session;

// The thread of the process's only session.
class SessionThread {
 public:
  SessionThread() {
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task"))
      if (textOf(task.path() / "comm") == "libcorvid\n") _folder = task.path();
  }
  bool awaitAsleep() const {
    return waitUntil([&] { return textOf(_folder / "stat").find(") S ") != std::string::npos; });
  }
  // How often it has gone to sleep.
  std::string sleeps() const {
    const std::string status = textOf(_folder / "status");
    const std::size_t at = status.find("\nvoluntary_ctxt_switches:");
    EXPECT_NE(at, status.npos);
    return status.substr(at, status.find('\n', at + 1) - at);
  }

 private:
  static std::string textOf(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::filesystem::path _folder;
};

class Wakeups : public SessionFixture {
 protected:
  void connect(Session& session) {
    ASSERT_TRUE(session.connect());
    pollfd ready{_socket->get(), POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 20000), 1);
    _peer = Descriptor(accept4(_socket->get(), nullptr, nullptr, SOCK_CLOEXEC));
    ASSERT_TRUE(awaits(Message::BOOTSTRAP));
    ASSERT_TRUE(SessionThread().awaitAsleep());
  }
  // Reads the next message, and notes the question of a call.
  bool awaits(Message::Which which) {
    if (!hasBytes(20000)) return false;
    capnp::StreamFdMessageReader reader(_peer.get());
    const auto message = reader.getRoot<Message>();
    if (message.isCall()) _questions.push_back(message.getCall().getQuestionId());
    EXPECT_EQ(static_cast<int>(message.which()), static_cast<int>(which));
    return message.which() == which;
  }
  bool hasBytes(int milliseconds) const {
    pollfd ready{_peer.get(), POLLIN, 0};
    return poll(&ready, 1, milliseconds) == 1;
  }
  // All calls that were read, in one go, without a result that the library knows.
  void answerAll(std::size_t bytes = 0) {
    std::string answers;
    for (const std::uint32_t question : std::exchange(_questions, {})) {
      capnp::MallocMessageBuilder message;
      auto answer = message.initRoot<Message>().initReturn();
      answer.setAnswerId(question);
      answer.initException().setReason(std::string(bytes, 'x'));
      const auto words = capnp::messageToFlatArray(message);
      const auto flat = words.asBytes();
      answers.append(reinterpret_cast<const char*>(flat.begin()), flat.size());
    }
    ASSERT_EQ(::send(_peer.get(), answers.data(), answers.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(answers.size()));
  }
  void flush(Session& session) {
    ASSERT_TRUE(session.flush([this](client::Status, auto, auto) { note([&] { ++_ended; }); }));
  }
  bool awaitEnded(std::size_t calls) {
    return await([&] { return _ended == calls; }) && SessionThread().awaitAsleep();
  }
  // Whoever closes a session waits for what is under way.
  void hangUp() { _peer.reset(); }
  bool send(Session& session, const client::Dictionary& payload = {}) {
    return static_cast<bool>(session.sendMessage(
        1, 1, payload, [this](client::Status, auto) { note([&] { ++_ended; }); }));
  }

 private:
  std::optional<ServiceSocket> _socket{std::move(ServiceSocket::bind(path)).value()};
  Descriptor _peer;
  std::vector<std::uint32_t> _questions;
  std::size_t _ended = 0;
};

TEST_F(Wakeups, ACallLeavesOnItsCallersThreadWhereNothingIsUnderWay) {
  Session session(options());
  connect(session);
  const SessionThread thread;
  const std::string before = thread.sleeps();
  ASSERT_TRUE(send(session));
  ASSERT_TRUE(awaits(Message::CALL));
  ASSERT_TRUE(thread.awaitAsleep());
  EXPECT_EQ(thread.sleeps(), before) << "the session's thread was woken";
  hangUp();
}

TEST_F(Wakeups, WhatTheSocketDoesNotTakeAtOnceLeavesOnTheSessionsThread) {
  Session session(options());
  connect(session);
  client::Dictionary payload;
  ASSERT_TRUE(payload.set("data", client::Data{std::string(std::size_t{4} << 20, 'x')}));
  ASSERT_TRUE(send(session, payload));
  ASSERT_TRUE(awaits(Message::CALL));
  hangUp();
}

TEST_F(Wakeups, AnAnswerIsAcknowledgedWithTheNextCall) {
  Session session(options());
  connect(session);
  ASSERT_TRUE(send(session));
  ASSERT_TRUE(awaits(Message::CALL));
  answerAll();
  ASSERT_TRUE(awaitEnded(1));
  EXPECT_FALSE(hasBytes(0)) << "the daemon was woken";
  ASSERT_TRUE(send(session));
  EXPECT_TRUE(awaits(Message::FINISH));
  EXPECT_TRUE(awaits(Message::CALL));
  hangUp();
}

TEST_F(Wakeups, FourAnswersAreAcknowledgedWithoutACall) {
  Session session(options());
  connect(session);
  for (int i = 0; i < 4; ++i) flush(session);
  for (int i = 0; i < 4; ++i) ASSERT_TRUE(awaits(Message::CALL));
  answerAll();
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(awaits(Message::FINISH));
  EXPECT_TRUE(awaitEnded(4));
}

TEST_F(Wakeups, ALargeAnswerIsAcknowledgedAtOnce) {
  Session session(options());
  connect(session);
  ASSERT_TRUE(send(session));
  ASSERT_TRUE(awaits(Message::CALL));
  answerAll(2000);
  EXPECT_TRUE(awaits(Message::FINISH));
  EXPECT_TRUE(awaitEnded(1));
}

}  // namespace
}  // namespace corvid
