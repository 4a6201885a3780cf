#include "tools/corvidctl/ControlClient.h"

#include <capnp/rpc-twoparty.h>
#include <fmt/format.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"
#include "platform/Paths.h"
#include "protocol/corvid.capnp.h"
#include "protocol/wire/MessageSocket.h"
#include "protocol/wire/SocketPort.h"
#include "tools/corvidctl/Client.h"
#include "tools/corvidctl/SystemManager.h"

namespace corvid::ctl {

namespace {

Descriptor connectedTo(const std::string& path) {
  Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (socket && UnixAddress(path).connect(socket.get()) == 0) return socket;
  const int error = errno;
  if (error == ENOENT || error == ECONNREFUSED)
    throw CallError(
        fmt::format("no daemon runs that could be asked: {}: {}", path, std::strerror(error)));
  throw CallError(fmt::format("cannot connect to {}: {}", path, std::strerror(error)));
}

std::vector<std::string> linesIn(capnp::List<capnp::Text>::Reader list) {
  std::vector<std::string> lines;
  for (const capnp::Text::Reader line : list) lines.emplace_back(line.cStr(), line.size());
  return lines;
}

std::string textIn(capnp::Text::Reader text) { return {text.cStr(), text.size()}; }

}  // namespace

struct ControlClient::Link {
  explicit Link(Descriptor connected)
      : socket(std::move(connected)),
        port(socket.get()),
        loop(port),
        scope(loop),
        stream(port),
        network(stream, 0, capnp::rpc::twoparty::Side::CLIENT),
        rpc(capnp::makeRpcClient(network)),
        control(nullptr) {
    capnp::MallocMessageBuilder message(4);
    auto daemon = message.initRoot<capnp::rpc::twoparty::VatId>();
    daemon.setSide(capnp::rpc::twoparty::Side::SERVER);
    control = rpc.bootstrap(daemon).castAs<wire::Control>();
  }

  const Descriptor socket;
  wire::SocketPort port;
  kj::EventLoop loop;
  kj::WaitScope scope;
  wire::MessageSocket stream;
  capnp::TwoPartyVatNetwork network;
  capnp::RpcSystem<capnp::rpc::twoparty::VatId> rpc;
  wire::Control::Client control;
};

ControlClient::ControlClient(const std::string& root) : _path(Paths(root).controlSocket) {
  if (root.empty() && connectionWouldStartDaemon())
    throw CallError(
        "no daemon runs that could be asked, and none is started for that; a client starts it");
  _link = std::make_unique<Link>(connectedTo(_path));
}

ControlClient::~ControlClient() = default;

template <class Request>
auto ControlClient::answerOf(Request request) {
  const wire::QuietLibrary quiet;
  try {
    return request.send().wait(_link->scope);
  } catch (const kj::Exception& exception) {
    if (exception.getType() == kj::Exception::Type::DISCONNECTED)
      throw CallError(fmt::format(
          "the daemon closed the connection to {}: it ended, or this user may not look "
          "(it takes root, the daemon's own user, or com.halcyon.private.corvidd.control in an "
          "entitlement file)",
          _path));
    throw CallError(exception.getDescription().cStr());
  }
}

std::string ControlClient::status() {
  return textIn(answerOf(_link->control.statusRequest()).getJson());
}

std::string ControlClient::sessions(std::uint64_t session) {
  auto request = _link->control.sessionsRequest();
  request.setSession(session);
  return textIn(answerOf(kj::mv(request)).getJson());
}

std::vector<std::string> ControlClient::explain(std::uint64_t session, std::uint32_t last) {
  auto request = _link->control.explainRequest();
  request.setSession(session);
  request.setLast(last);
  return linesIn(answerOf(kj::mv(request)).getLines());
}

void ControlClient::watch(std::uint64_t session, bool payload) {
  auto request = _link->control.watchRequest();
  request.setSession(session);
  request.setPayload(payload);
  const auto answer = answerOf(kj::mv(request));
  if (answer.hasRefusal()) throw CallError(textIn(answer.getRefusal()));
}

std::vector<std::string> ControlClient::nextLines() {
  return linesIn(answerOf(_link->control.nextLinesRequest()).getLines());
}

std::string ControlClient::metrics() {
  return textIn(answerOf(_link->control.metricsRequest()).getText());
}

std::string ControlClient::storebag(const std::string& name) {
  auto request = _link->control.storebagRequest();
  request.setName(name);
  const auto answer = answerOf(kj::mv(request));
  if (answer.hasRefusal()) throw CallError(textIn(answer.getRefusal()));
  const auto bytes = answer.getPropertyList().asChars();
  return {bytes.begin(), bytes.size()};
}

std::vector<std::string> ControlClient::refresh(std::int32_t clientType, bool states) {
  auto request = _link->control.refreshRequest();
  request.setClientType(clientType);
  request.setStates(states);
  return linesIn(answerOf(kj::mv(request)).getTouched());
}

void ControlClient::setLogLevel(int level, std::uint32_t seconds) {
  auto request = _link->control.setLogLevelRequest();
  request.setLevel(level);
  request.setSeconds(seconds);
  answerOf(kj::mv(request));
}

}  // namespace corvid::ctl
