// An IPv4 UDP socket of the system.
#pragma once

#include <memory>

#include "base/Descriptor.h"
#include "platform/Network.h"

namespace corvid {

class UDPSocket final : public DatagramSocket {
 public:
  // The failure's code is the system's error number.
  static Result<std::unique_ptr<DatagramSocket>> open();
  explicit UDPSocket(Descriptor socket) : _socket(std::move(socket)) {}

  int bindToAnyPort() override;
  int connect(std::uint32_t address, std::uint16_t port) override;
  bool send(std::string_view datagram) override;
  std::optional<std::size_t> receive(std::span<char> buffer) override;
  int descriptor() const override { return _socket.get(); }

 private:
  Descriptor _socket;
};

}  // namespace corvid
