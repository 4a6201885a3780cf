#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "platform/network/UDPSocket.h"

namespace corvid {
namespace {

constexpr std::uint32_t loopback = 0x7F000001;
constexpr int patience = 10'000;

std::unique_ptr<DatagramSocket> opened() {
  auto socket = UDPSocket::open();
  EXPECT_TRUE(socket);
  return std::move(socket).value();
}
std::uint16_t portOf(const DatagramSocket& socket) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(socket.descriptor(), reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}
std::optional<std::string> receivedBy(DatagramSocket& socket, std::size_t room = 2000) {
  pollfd waiting{socket.descriptor(), POLLIN, 0};
  if (poll(&waiting, 1, patience) != 1) return std::nullopt;
  std::string buffer(room, '\0');
  const auto size = socket.receive(buffer);
  if (!size) return std::nullopt;
  buffer.resize(*size);
  return buffer;
}

TEST(UDPSocketTest, CarriesDatagramsBothWays) {
  const auto server = opened();
  const auto client = opened();
  ASSERT_EQ(server->bindToAnyPort(), 0);
  ASSERT_EQ(client->bindToAnyPort(), 0);
  ASSERT_NE(portOf(*client), 0);
  ASSERT_EQ(client->connect(loopback, portOf(*server)), 0);
  ASSERT_EQ(server->connect(loopback, portOf(*client)), 0);
  EXPECT_TRUE(client->send("question"));
  EXPECT_EQ(receivedBy(*server), "question");
  EXPECT_TRUE(server->send("answer"));
  EXPECT_EQ(receivedBy(*client, 3), "ans") << "cut at the buffer's end";
  std::array<char, 9> unused;
  EXPECT_EQ(client->receive(unused), std::nullopt) << "and the rest is gone";
}

TEST(UDPSocketTest, NeitherReceivingNorSendingWaits) {
  const auto socket = opened();
  ASSERT_EQ(socket->bindToAnyPort(), 0);
  std::array<char, 16> buffer;
  EXPECT_EQ(socket->receive(buffer), std::nullopt);
  EXPECT_FALSE(socket->send("to nobody")) << "not connected";
}

TEST(UDPSocketTest, ADatagramThatIsTooLargeIsNotSent) {
  const auto socket = opened();
  ASSERT_EQ(socket->connect(loopback, 9), 0);
  EXPECT_FALSE(socket->send(std::string(70'000, 'x')));
}

TEST(UDPSocketTest, TellsWhyItCannotConnectOrBind) {
  const auto socket = opened();
  EXPECT_EQ(socket->connect(0xFFFFFFFF, 9), EACCES) << "broadcasts are not allowed";
  EXPECT_EQ(socket->bindToAnyPort(), EINVAL) << "trying to connect gave it a port";
}

TEST(UDPSocketTest, TellsWhyThereIsNoSocket) {
  rlimit before{};
  getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none{0, before.rlim_max};
  setrlimit(RLIMIT_NOFILE, &none);
  const auto socket = UDPSocket::open();
  setrlimit(RLIMIT_NOFILE, &before);
  ASSERT_FALSE(socket);
  EXPECT_EQ(socket.failure().code, EMFILE);
}

TEST(UDPSocketTest, AnErrorFromThePeersMachineIsForgottenOnceRead) {
  auto gone = opened();
  ASSERT_EQ(gone->bindToAnyPort(), 0);
  const auto client = opened();
  ASSERT_EQ(client->connect(loopback, portOf(*gone)), 0);
  gone.reset();
  EXPECT_TRUE(client->send("x"));
  pollfd waiting{client->descriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&waiting, 1, patience), 1) << "the refusal is reported";
  std::array<char, 16> buffer;
  EXPECT_EQ(client->receive(buffer), std::nullopt);
  EXPECT_EQ(poll(&waiting, 1, 0), 0);
}

}  // namespace
}  // namespace corvid
