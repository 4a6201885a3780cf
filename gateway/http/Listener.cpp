#include "gateway/http/Listener.h"

#include <fmt/format.h>

#include <boost/asio/post.hpp>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "base/Log.h"
#include "gateway/http/Endpoint.h"

namespace corvid::fleet {

namespace {

// Until descriptors may be free again.
constexpr std::chrono::milliseconds pauseAfterFailure{100};

}  // namespace

Listener::Listener(const std::string& address, Role role, std::vector<Worker*> workers)
    : _role(role),
      _workers(std::move(workers)),
      _acceptor(_workers.front()->loop()),
      _pause(_workers.front()->loop()) {
  const auto endpoint = endpointFrom(address);
  if (!endpoint) throw std::runtime_error(fmt::format("\"{}\" is no ADDRESS:PORT", address));
  try {
    _acceptor.open(endpoint->protocol());
    _acceptor.set_option(boost::asio::socket_base::reuse_address(true));
    _acceptor.bind(*endpoint);
    _acceptor.listen(4096);
    _port = _acceptor.local_endpoint().port();
  } catch (const boost::system::system_error& error) {
    throw std::runtime_error(
        fmt::format("cannot listen at {}: {}", address, error.code().message()));
  }
}

void Listener::stop() {
  boost::asio::post(_workers.front()->loop(), [self = shared_from_this()] {
    boost::system::error_code ignored;
    self->_acceptor.close(ignored);
    self->_pause.cancel();
  });
}

void Listener::accept() {
  Worker& worker = *_workers[_next++ % _workers.size()];
  const auto socket = std::make_shared<boost::asio::ip::tcp::socket>(worker.loop());
  _acceptor.async_accept(*socket, [self = shared_from_this(), socket, &worker](const auto& error) {
    self->accepted(error, std::move(*socket), worker);
  });
}

void Listener::accepted(const boost::system::error_code& error, boost::asio::ip::tcp::socket socket,
                        Worker& worker) {
  if (!_acceptor.is_open()) return;
  if (error) {
    logWarning("gateway: A connection cannot be accepted: {}", error.message());
    _pause.expires_after(pauseAfterFailure);
    return _pause.async_wait([self = shared_from_this()](const auto& cancelled) {
      if (!cancelled) self->accept();
    });
  }
  Shared& shared = worker.shared();
  if (_role == Role::devices &&
      shared.ledger.openConnections() >= _workers.front()->inForce().settings.connections)
    shared.ledger.connectionTurnedAway();
  else
    worker.adopt(std::move(socket), _role);
  accept();
}

}  // namespace corvid::fleet
