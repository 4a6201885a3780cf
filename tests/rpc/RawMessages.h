// The bytes of single messages of the RPC protocol, for clients that keep to no rule.
#pragma once

#include <capnp/message.h>
#include <capnp/rpc.capnp.h>
#include <capnp/serialize.h>

#include <cstdint>
#include <string>
#include <vector>

#include "base/LittleEndian.h"
#include "protocol/corvid.capnp.h"

namespace corvid {

inline std::string bytesOf(capnp::MessageBuilder& message) {
  const auto words = capnp::messageToFlatArray(message);
  const auto bytes = words.asBytes();
  return {reinterpret_cast<const char*>(bytes.begin()), bytes.size()};
}

// As the header of a message, for one, has them.
inline std::string numbers(const std::vector<std::uint32_t>& content) {
  std::string bytes(content.size() * sizeof content[0], '\0');
  for (std::size_t i = 0; i < content.size(); ++i)
    storeLittle(&bytes[i * sizeof content[0]], content[i]);
  return bytes;
}

// A message of the RPC protocol.
template <class Fill>
std::string envelope(Fill fill) {
  capnp::MallocMessageBuilder message;
  fill(message.initRoot<capnp::rpc::Message>());
  return bytesOf(message);
}

inline std::string bootstrap(std::uint32_t question) {
  return envelope(
      [&](capnp::rpc::Message::Builder m) { m.initBootstrap().setQuestionId(question); });
}

// A call of the first exported object.
template <class Fill>
std::string call(std::uint32_t question, std::uint16_t method, Fill fill) {
  return envelope([&](capnp::rpc::Message::Builder m) {
    auto call = m.initCall();
    call.setQuestionId(question);
    call.initTarget().setImportedCap(0);
    call.setInterfaceId(capnp::typeId<wire::ClientSession>());
    call.setMethodId(method);
    fill(call.initParams());
  });
}

}  // namespace corvid
