// A listener whose process may be about to end.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/UnixAddress.h"
#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/WireClient.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

// Serves a socket that outlives each listener, as one handed over by a launcher does.
class AcceptGateTest : public ServiceFixture {
 protected:
  AcceptGateTest() : _socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    path = folder.path() + "/socket";
    EXPECT_EQ(UnixAddress(path).bind(_socket.get()), 0);
    EXPECT_EQ(listen(_socket.get(), 16), 0);
  }

  void serve(AcceptGate gate = {}) {
    auto adopted =
        IPCListener::serving(ServiceSocket::adopt(Descriptor(dup(_socket.get()))),
                             [](int) { return [] { return Dictionary(); }; }, {tokens, budgets});
    ASSERT_TRUE(adopted) << adopted.failure().message;
    listener = std::move(adopted).value();
    listener->resume(delegate, std::move(gate));
  }

  // A gate that counts.
  AcceptGate gate(bool opens) {
    return {[this, opens] {
              notice.change([&] { ++entered; });
              return opens;
            },
            [this] { notice.change([&] { ++left; }); }};
  }

  Notice notice;
  int entered = 0;
  int left = 0;

 private:
  Descriptor _socket;
};

TEST_F(AcceptGateTest, IsPassedAroundEachAcceptance) {
  serve(gate(true));
  RawClient client(path);
  delegate->at(0);
  EXPECT_TRUE(notice.await([this] { return entered > 0 && entered == left; }));
}

TEST_F(AcceptGateTest, LeavesTheConnectionToTheNextWhoServesWhenItIsShut) {
  serve(gate(false));
  RawClient client(path);
  ASSERT_TRUE(notice.await([this] { return entered > 0; }));
  stop();
  EXPECT_EQ(left, 0);
  EXPECT_TRUE(delegate->accepted.empty());

  serve();
  EXPECT_NE(delegate->at(0).connection, nullptr);
}

TEST_F(AcceptGateTest, IsNotAskedAgainOnceItWasShut) {
  serve(gate(false));
  RawClient first(path);
  ASSERT_TRUE(notice.await([this] { return entered > 0; }));
  RawClient second(path);
  stop();
  EXPECT_EQ(entered, 1);
}

}  // namespace
}  // namespace corvid
