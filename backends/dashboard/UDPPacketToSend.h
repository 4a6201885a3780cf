// One datagram that waits to be sent, or to be acknowledged.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <optional>
#include <string_view>
#include <utility>

namespace corvid {

// Owns its bytes.
class UDPPacketToSend {
 public:
  using Bytes = std::unique_ptr<char[]>;
  enum class State : std::int32_t {
    notSent = 0,  // not yet in full
    sent = 1,     // waits for its acknowledgement
  };

  // Copies the bytes; nothing where there is no memory for them.
  static std::optional<UDPPacketToSend> initWithBytes(std::string_view bytes,
                                                      std::uint16_t eventNum) {
    Bytes copy(new (std::nothrow) char[bytes.size()]);
    if (!copy) return std::nullopt;
    std::ranges::copy(bytes, copy.get());
    UDPPacketToSend packet;
    packet.setEventNumber(eventNum);
    packet.setData(std::move(copy), bytes.size());
    return packet;
  }

  State state() const { return _state; }
  void setState(State state) { _state = state; }
  // Ticks counted since the last transmission.
  std::int32_t numberOfChecks() const { return _numberOfChecks; }
  void setNumberOfChecks(std::int32_t checks) { _numberOfChecks = checks; }
  std::int32_t numberOfRetransmits() const { return _numberOfRetransmits; }
  void setNumberOfRetransmits(std::int32_t retransmits) { _numberOfRetransmits = retransmits; }
  // What an acknowledgement names.
  std::uint16_t eventNumber() const { return _eventNumber; }
  void setEventNumber(std::uint16_t eventNumber) { _eventNumber = eventNumber; }
  std::string_view data() const { return {_data.get(), _length}; }
  void setData(Bytes data, std::size_t length) {
    _data = std::move(data);
    _length = length;
  }

 private:
  UDPPacketToSend() = default;

  State _state = State::notSent;
  std::int32_t _numberOfChecks = 0;
  std::int32_t _numberOfRetransmits = 0;
  std::uint16_t _eventNumber = 0;
  Bytes _data;
  std::size_t _length = 0;
};

}  // namespace corvid
