#include "gateway/Worker.h"

#include <boost/asio/post.hpp>
#include <utility>

#include "base/Thread.h"
#include "gateway/http/Answer.h"
#include "gateway/http/Connection.h"

namespace corvid::fleet {

Worker::Worker(Shared& shared, std::shared_ptr<const InForce> inForce)
    : _shared(shared),
      _inForce(std::move(inForce)),
      _holding(shared.log, _mailbox, shared.ledger, shared.waiting) {
  scheduleLook();
}

Worker::~Worker() {
  abandon();
  if (_thread.joinable()) _thread.join();
}

void Worker::start(std::function<void()> ended) {
  _thread = startThread("gateway-worker", [this, ended = std::move(ended)] {
    _loop.run();
    ended();
  });
}

void Worker::adopt(boost::asio::ip::tcp::socket socket, Role role) {
  boost::asio::post(_loop, [this, role, socket = std::move(socket)]() mutable {
    serve(std::move(socket), role);
  });
}

void Worker::serve(boost::asio::ip::tcp::socket socket, Role role) {
  boost::system::error_code error;
  const auto peer = plainAddress(socket.remote_endpoint(error).address());
  if (error || _isStopping) return;
  // A proxy's connections are many clients'.
  std::shared_ptr<Client> client;
  if (role == Role::devices && !_inForce->isProxy(peer)) {
    client = _shared.clients.find(clientKey(peer));
    if (const auto rule = client->addConnection(_inForce->settings)) {
      _shared.ledger.connectionTurnedAway();
      Transport transport(std::move(socket), {});
      if (!_inForce->tls) transport.write(wireForm(answerTo({*rule}, _shared.whenFull), false));
      return;
    }
  }
  Transport transport(std::move(socket), role == Role::devices ? _inForce->tls : nullptr);
  const auto connection =
      std::make_shared<Connection>(*this, std::move(transport), role, std::move(client));
  connection->start(_connections.insert(_connections.end(), connection));
}

void Worker::setInForce(std::shared_ptr<const InForce> inForce) {
  boost::asio::post(
      _loop, [this, inForce = std::move(inForce)]() mutable { _inForce = std::move(inForce); });
}

void Worker::stop() {
  boost::asio::post(_loop, [this] {
    _isStopping = true;
    for (auto each = _connections.begin(); each != _connections.end();) (*each++)->stop();
    endIfDone();
  });
}

void Worker::forget(Connections::iterator connection) {
  _connections.erase(connection);
  endIfDone();
}

void Worker::endIfDone() {
  if (!_isStopping || !_connections.empty()) return;
  _work.reset();
  _timer.cancel();
}

void Worker::scheduleLook() {
  _timer.expires_after(tick);
  _timer.async_wait([this](const boost::system::error_code& error) {
    if (error) return;
    look();
    if (!_isStopping || !_connections.empty()) scheduleLook();
  });
}

void Worker::look() {
  const auto now = std::chrono::steady_clock::now();
  _holding.look(now);
  for (auto each = _connections.begin(); each != _connections.end();) (*each++)->look(now);
}

}  // namespace corvid::fleet
