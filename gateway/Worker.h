// One thread and the connections that it serves.
#pragma once

#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <list>
#include <memory>
#include <span>
#include <thread>

#include "gateway/Holding.h"
#include "gateway/Mailbox.h"
#include "gateway/Shared.h"
#include "gateway/body/Gunzip.h"

namespace corvid::fleet {

class Connection;
enum class Role { devices, monitors };

// Threads   start(), adopt(), setInForce(), stop(), abandon(): any. The others: its own.
class Worker {
 public:
  // `shared` is borrowed.
  Worker(Shared& shared, std::shared_ptr<const InForce> inForce);
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void start(std::function<void()> ended);
  void adopt(boost::asio::ip::tcp::socket socket, Role role);
  void setInForce(std::shared_ptr<const InForce> inForce);
  // Connections that are idle are closed, the others after their answer; then the thread ends.
  void stop();
  // The thread ends whatever goes on.
  void abandon() { _loop.stop(); }

  boost::asio::io_context& loop() { return _loop; }
  Shared& shared() { return _shared; }
  const InForce& inForce() const { return *_inForce; }
  Gunzips& gunzips() { return _gunzips; }
  Holding& holding() { return _holding; }
  const std::shared_ptr<Mailbox>& mailbox() const { return _mailbox; }
  bool isStopping() const { return _isStopping; }
  // Whose content lasts for a turn.
  std::span<char> buffer() { return _buffer; }

  using Connections = std::list<std::shared_ptr<Connection>>;
  void forget(Connections::iterator connection);

 private:
  // Between two looks at what takes too long.
  static constexpr std::chrono::milliseconds tick{250};

  void scheduleLook();
  void look();
  void serve(boost::asio::ip::tcp::socket socket, Role role);
  void endIfDone();

  Shared& _shared;
  std::shared_ptr<const InForce> _inForce;
  std::array<char, std::size_t{64} << 10> _buffer;
  Gunzips _gunzips;
  // Pending handlers keep connections, which need what stands above.
  boost::asio::io_context _loop{1};
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _work{
      _loop.get_executor()};
  boost::asio::steady_timer _timer{_loop};
  const std::shared_ptr<Mailbox> _mailbox = std::make_shared<Mailbox>(_loop);
  Holding _holding;
  Connections _connections;
  bool _isStopping = false;
  std::thread _thread;
};

}  // namespace corvid::fleet
