// A client that speaks the wire's language without the client library, on the test's own thread.
#pragma once

#include <capnp/rpc-twoparty.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"
#include "protocol/corvid.capnp.h"
#include "protocol/wire/MessageSocket.h"
#include "protocol/wire/ValueCodec.h"
#include "rpc/Outbox.h"

namespace corvid {

inline Descriptor connectTo(const std::string& path) {
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (UnixAddress(path).connect(socket.get()) != 0)
    throw std::runtime_error(path + ": " + std::strerror(errno));
  return socket;
}

// A socket without any protocol, for bytes that no library would write.
class RawClient {
 public:
  explicit RawClient(const std::string& path) : socket(connectTo(path)) {}

  // False once the daemon has closed the connection, or while a socket that does not block takes no
  // more.
  bool write(std::string_view bytes) {
    while (!bytes.empty()) {
      const ssize_t written = send(socket.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (written <= 0) return false;
      bytes.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
  }
  // True when the daemon closes the connection, whatever it sends before; bounded.
  bool awaitClosed() {
    timeval bound{20, 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    char buffer[4096];
    for (;;) {
      const ssize_t received = recv(socket.get(), buffer, sizeof buffer, 0);
      if (received == 0) return true;
      if (received < 0) return errno == ECONNRESET;
    }
  }

  Descriptor socket;
};

class WireClient {
 public:
  struct Received {
    std::optional<Dictionary> message;
    double timestamp;
    std::uint16_t category;
    std::uint16_t type;
    std::optional<Dictionary> payload;
  };

  explicit WireClient(const std::string& path)
      : socket(connectTo(path)),
        port(socket.get()),
        loop(port),
        scope(loop),
        stream(port),
        network(stream, limits::descriptorsPerMessage, capnp::rpc::twoparty::Side::CLIENT),
        rpc(capnp::makeRpcClient(network)),
        session(rpc.bootstrap(daemon()).castAs<wire::ClientSession>()) {}
  WireClient(const std::string& path, kj::Own<wire::ClientSessionReply::Server> replies)
      : socket(connectTo(path)),
        port(socket.get()),
        loop(port),
        scope(loop),
        stream(port),
        network(stream, limits::descriptorsPerMessage, capnp::rpc::twoparty::Side::CLIENT),
        rpc(capnp::makeRpcServer(network, kj::mv(replies))),
        session(rpc.bootstrap(daemon()).castAs<wire::ClientSession>()) {}

  capnp::rpc::twoparty::VatId::Reader daemon() {
    auto peer = vat.initRoot<capnp::rpc::twoparty::VatId>();
    peer.setSide(capnp::rpc::twoparty::Side::SERVER);
    return peer;
  }

  // Runs the loop until the daemon has closed the connection.
  void awaitClosed() { network.onDisconnect().wait(scope); }

  Descriptor socket;
  wire::SocketPort port;
  kj::EventLoop loop;
  kj::WaitScope scope;
  wire::MessageSocket stream;
  capnp::TwoPartyVatNetwork network;
  capnp::RpcSystem<capnp::rpc::twoparty::VatId> rpc;
  capnp::MallocMessageBuilder vat{4};
  wire::ClientSession::Client session;
};

inline void fill(wire::ValueList::Builder list, const Dictionary& dictionary) {
  wire::encode(dictionary, list);
}

// Sends one event and gives its text, or "unanswered", "none".
inline std::string sendEvent(WireClient& client, std::uint16_t category, std::uint16_t type,
                             const std::optional<Dictionary>& payload = std::nullopt,
                             bool replyWanted = true) {
  auto request = client.session.sendMessagesRequest();
  auto message = request.initMessages(1)[0];
  message.setReplyWanted(replyWanted);
  auto event = message.initEvent();
  event.setCategory(category);
  event.setType(type);
  if (payload) fill(event.initPayload(static_cast<capnp::uint>(payload->size())), *payload);
  auto response = request.send().wait(client.scope);
  const auto result = response.getResults()[0];
  switch (result.which()) {
    case wire::TextResult::UNANSWERED: return "unanswered";
    case wire::TextResult::NONE: return "none";
    case wire::TextResult::TEXT: return result.getText();
    case wire::TextResult::DROPPED: return result.getDropped().getReason();
  }
  return "unknown";
}

}  // namespace corvid
