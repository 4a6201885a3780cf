#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <optional>
#include <string>

#include "tests/gateway/engines/Relay.h"
#include "tests/support/Loopback.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {
namespace {

// A server behind a relay, and a client before it.
class RelayTest : public ::testing::Test {
 protected:
  RelayTest() {
    BoundSocket bound = listenOnLoopback();
    _listener = std::move(bound.socket);
    _relay.emplace(bound.port);
  }
  Descriptor connected() const {
    Descriptor client = connectOnLoopback(_relay->port());
    EXPECT_TRUE(client);
    return client;
  }
  Descriptor accepted() const {
    EXPECT_TRUE(isReadable(_listener));
    return Descriptor(accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  static bool isReadable(const Descriptor& socket, std::chrono::milliseconds limit = patience) {
    pollfd polled{socket.get(), POLLIN, 0};
    return poll(&polled, 1, static_cast<int>(limit.count())) == 1;
  }
  static void send(const Descriptor& socket, const std::string& text) {
    EXPECT_EQ(::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(text.size()));
  }
  // As many bytes as are asked for; less where the connection ends.
  static std::string received(const Descriptor& socket, std::size_t bytes) {
    std::string text(bytes, '\0');
    std::size_t size = 0;
    while (size < bytes && isReadable(socket)) {
      const ssize_t length = recv(socket.get(), text.data() + size, bytes - size, 0);
      if (length <= 0) break;
      size += static_cast<std::size_t>(length);
    }
    text.resize(size);
    return text;
  }

  Descriptor _listener;
  std::optional<Relay> _relay;
};

constexpr std::chrono::milliseconds aWhile{200};

TEST_F(RelayTest, PassesBytesOnInBothWays) {
  const Descriptor client = connected();
  const Descriptor server = accepted();
  std::string text;
  while (text.size() < 100'000) text += std::to_string(text.size());
  send(client, text);
  EXPECT_EQ(received(server, text.size()), text);
  send(server, text);
  EXPECT_EQ(received(client, text.size()), text);
}

TEST_F(RelayTest, KeepsWhatIsSentWhileItIsCutUntilItIsMended) {
  const Descriptor client = connected();
  const Descriptor server = accepted();
  _relay->cut();
  send(client, "one");
  send(server, "two");
  const Descriptor late = connected();
  EXPECT_FALSE(isReadable(server, aWhile));
  EXPECT_FALSE(isReadable(client, aWhile));
  EXPECT_FALSE(isReadable(_listener, aWhile));
  _relay->mend();
  EXPECT_EQ(received(server, 3), "one");
  EXPECT_EQ(received(client, 3), "two");
  send(late, "three");
  EXPECT_EQ(received(accepted(), 5), "three");
}

TEST_F(RelayTest, EndsAConnectionWhoseOtherSideEndsButNotWhileItIsCut) {
  const Descriptor client = connected();
  Descriptor server = accepted();
  _relay->cut();
  server.reset();
  EXPECT_FALSE(isReadable(client, aWhile));
  _relay->mend();
  EXPECT_EQ(received(client, 1), "");
  EXPECT_TRUE(isReadable(client, aWhile));  // its end
}

}  // namespace
}  // namespace corvid::fleet
