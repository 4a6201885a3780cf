// One datagram that waits to be sent, or to be acknowledged.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace corvid {

class UDPPacketToSend {
 public:
  enum class State : std::int32_t {
    notSent = 0,  // not yet in full
    sent = 1,     // waits for its acknowledgement
  };

  // Copies the bytes.
  UDPPacketToSend(std::string_view bytes, std::uint16_t eventNum)
      : _eventNumber(eventNum), _data(bytes) {}

  State state() const { return _state; }
  void setState(State state) { _state = state; }
  // Ticks counted since the last transmission.
  std::int32_t numberOfChecks() const { return _numberOfChecks; }
  void setNumberOfChecks(std::int32_t checks) { _numberOfChecks = checks; }
  std::int32_t numberOfRetransmits() const { return _numberOfRetransmits; }
  void setNumberOfRetransmits(std::int32_t retransmits) { _numberOfRetransmits = retransmits; }
  // What an acknowledgement names.
  std::uint16_t eventNumber() const { return _eventNumber; }
  const std::string& data() const { return _data; }

 private:
  State _state = State::notSent;
  std::int32_t _numberOfChecks = 0;
  std::int32_t _numberOfRetransmits = 0;
  std::uint16_t _eventNumber;
  std::string _data;
};

}  // namespace corvid
