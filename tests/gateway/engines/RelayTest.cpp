#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <optional>
#include <string>

#include "tests/gateway/engines/Relay.h"
#include "tests/support/Waiting.h"

namespace corvid::fleet {
namespace {

// A server behind a relay, and a client before it.
class RelayTest : public ::testing::Test {
 protected:
  RelayTest() : _listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    auto* const generic = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(bind(_listener.get(), generic, length), 0);
    EXPECT_EQ(listen(_listener.get(), 16), 0);
    EXPECT_EQ(getsockname(_listener.get(), generic, &length), 0);
    _relay.emplace(ntohs(address.sin_port));
  }
  static sockaddr_in loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
  }
  Descriptor connected() const {
    Descriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const sockaddr_in address = loopback(_relay->port());
    EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
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

  const Descriptor _listener;
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
