// What a client writes to its socket: it may be refused, but whatever is taken in must be a value
// that could have been sent.
#include <capnp/message.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "protocol/corvid.capnp.h"
#include "protocol/wire/FrameReader.h"
#include "protocol/wire/SocketPort.h"
#include "protocol/wire/ValueCodec.h"

namespace {

using corvid::Dictionary;
using corvid::wire::ValueDecoder;

void require(bool condition) {
  if (!condition) std::abort();
}

void sendAgain(const Dictionary& dictionary) {
  corvid::wire::Extent extent;
  extent.add(dictionary);
  require(extent.fitness == corvid::wire::Fitness::fits);
  capnp::MallocMessageBuilder message(static_cast<capnp::uint>(extent.words + 8));
  auto entries = message.initRoot<corvid::wire::PropertyValue>().initDictionary(
      static_cast<capnp::uint>(dictionary.size()));
  corvid::wire::encode(dictionary, entries);
  require(ValueDecoder().dictionary(entries.asReader()).size() == dictionary.size());
}

void readCall(capnp::MessageReader& message) {
  const auto call = message.getRoot<corvid::wire::ClientSession::SendMessagesParams>();
  const auto messages = call.getMessages();
  if (messages.size() > corvid::limits::messagesPerCall) return;
  ValueDecoder decoder;
  for (const corvid::wire::Message::Reader each : messages) {
    if (each.isDictionary())
      sendAgain(decoder.dictionary(each.getDictionary()));
    else if (each.isEvent() && each.getEvent().hasPayload())
      sendAgain(decoder.dictionary(each.getEvent().getPayload()));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const corvid::wire::QuietLibrary quiet;
  corvid::wire::FrameReader frames;
  try {
    while (size > 0) {
      kj::ArrayPtr<kj::byte> space = frames.space();
      const std::size_t count = std::min(size, space.size());
      std::memcpy(space.begin(), data, count);
      frames.filled(count);
      data += count;
      size -= count;
      for (;;) {
        kj::Own<capnp::MessageReader> message = frames.next();
        if (message.get() == nullptr) break;
        readCall(*message);
      }
    }
  } catch (const corvid::wire::BrokenRule&) {
  } catch (const kj::Exception&) {
  }
  return 0;
}
