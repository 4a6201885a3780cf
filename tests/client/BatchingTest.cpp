// How events of a busy host travel, seen by a daemon that counts remote calls.
#include <capnp/rpc-twoparty.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>
#include <thread>
#include <vector>

#include "protocol/corvid.capnp.h"
#include "protocol/wire/MessageSocket.h"
#include "rpc/ServiceSocket.h"
#include "tests/client/SessionFixture.h"

namespace corvid {
namespace {

using client::Session;

// Serves one connection. Answers every event with its category; the first call waits for release().
class CountingDaemon {
 public:
  explicit CountingDaemon(const std::string& path)
      : _socket(std::move(ServiceSocket::bind(path)).value()), _thread([this] { serve(); }) {}
  ~CountingDaemon() {
    release();
    _thread.join();
  }

  bool awaitCalls(std::size_t count) {
    return _notice.await([&] { return _events.size() >= count; });
  }
  void release() {
    _notice.change([&] { _released = true; });
  }
  // The number of events of each call.
  std::vector<std::size_t> events() {
    std::vector<std::size_t> copy;
    _notice.change([&] { copy = _events; });
    return copy;
  }

 private:
  struct Counting final : wire::ClientSession::Server {
    explicit Counting(CountingDaemon& daemon) : owner(daemon) {}
    kj::Promise<void> sendMessages(SendMessagesContext context) override {
      const auto messages = context.getParams().getMessages();
      owner._notice.change([&] { owner._events.push_back(messages.size()); });
      owner._notice.await([&] { return owner._released; });
      auto results = context.getResults().initResults(messages.size());
      for (capnp::uint i = 0; i < results.size(); ++i)
        results[i].setText(std::to_string(messages[i].getEvent().getCategory()));
      return kj::READY_NOW;
    }
    CountingDaemon& owner;
  };

  void serve() {
    pollfd ready{_socket.get(), POLLIN, 0};
    if (poll(&ready, 1, 20000) != 1) return;
    const Descriptor peer(accept4(_socket.get(), nullptr, nullptr, SOCK_CLOEXEC));
    wire::SocketPort port(peer.get());
    kj::EventLoop loop(port);
    kj::WaitScope scope(loop);
    wire::MessageSocket stream(port);
    capnp::TwoPartyVatNetwork network(stream, capnp::rpc::twoparty::Side::SERVER);
    auto rpc = capnp::makeRpcServer(network, kj::heap<Counting>(*this));
    network.onDisconnect().wait(scope);
  }

  ServiceSocket _socket;
  Notice _notice;
  std::vector<std::size_t> _events;
  bool _released = false;
  std::thread _thread;
};

class Batching : public SessionFixture {};

TEST_F(Batching, OneEventLeavesAtOnceAndWhatWaitsTravelsTogether) {
  CountingDaemon daemon(path);
  Session session(options());
  std::vector<std::string> answers;
  const auto send = [&](std::uint16_t category) {
    ASSERT_TRUE(session.sendMessage(category, 0, Session::none(),
                                    [&](client::Status, std::optional<std::string> text) {
                                      note([&] { answers.push_back(text.value_or("none")); });
                                    }));
  };
  send(0);
  ASSERT_TRUE(daemon.awaitCalls(1));
  constexpr std::size_t events = 2000;
  for (std::uint16_t i = 1; i < events; ++i) send(i);
  daemon.release();
  ASSERT_TRUE(await([&] { return answers.size() == events; }));

  std::size_t sum = 0;
  for (const std::size_t count : daemon.events()) sum += count;
  EXPECT_EQ(sum, events);
  EXPECT_EQ(daemon.events()[0], 1u) << "the first does not wait for company";
  // A few calls leave early, the rest is full.
  EXPECT_LE(daemon.events().size(), events / 64 + 8);
  for (std::size_t i = 0; i < events; ++i) EXPECT_EQ(answers[i], std::to_string(i));
}

TEST_F(Batching, LargeEventsTravelInSmallerCompany) {
  CountingDaemon daemon(path);
  Session session(options());
  client::Dictionary payload;
  const std::string bytes(100000, 'x');
  ASSERT_TRUE(payload.set("data", client::Data{bytes}));
  std::size_t ended = 0;
  const auto count = [&](corvid_outcome_t) { note([&] { ++ended; }); };
  for (int i = 0; i < 40; ++i) ASSERT_TRUE(session.sendMessage(1, 1, payload, nullptr, count));
  daemon.release();
  ASSERT_TRUE(await([&] { return ended == 40; }));
  std::size_t travelled = 0;
  for (const std::size_t events : daemon.events()) {
    EXPECT_LE(events, 2u);
    travelled += events;
  }
  EXPECT_EQ(travelled, 40u);
}

}  // namespace
}  // namespace corvid
