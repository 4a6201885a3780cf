// What somebody who holds the daemon's socket tells the client library: it may be refused, and
// whatever is understood is no larger than what came.
//
// The first byte chooses what the message is taken for: the answer to an operation, messages for
// the client's aggregation block, or a change of its states.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "client/include/corvid/testing.h"
#include "client/wire/Calls.h"
#include "protocol/Limits.h"
#include "tests/fuzz/Require.h"

namespace {

using namespace corvid;
using library::wire::MessageReader;

constexpr std::uint8_t operations = CORVID_OPERATION_SEND_SINGLE_MESSAGE + 1;
enum { deliveries = operations, statesChange, kinds };

constexpr std::size_t callsInBatch = 3;

library::Parcel parcelOf(corvid_operation_t operation) {
  library::Parcel parcel;
  for (std::size_t i = 0; i < callsInBatch; ++i)
    parcel.calls.push_back(std::make_shared<library::Call>(library::Request{.operation = operation},
                                                           library::Completion(nullptr, nullptr),
                                                           wire::Extent{}));
  return parcel;
}

std::size_t bytesIn(const library::States& states) {
  std::size_t bytes = states.reason ? states.reason->size() : 0;
  for (const auto& backend : states.backends)
    bytes += backend.name.size() + backend.state.size() + backend.reason.size();
  return bytes;
}

std::size_t bytesIn(const library::Answer& answer) {
  std::size_t bytes = answer.text ? answer.text->size() : 0;
  if (answer.reason) bytes += answer.reason->size();
  if (answer.states) bytes += bytesIn(*answer.states);
  if (answer.failure) bytes += answer.failure->domain.size() + answer.failure->description.size();
  return bytes;
}

// The bytes of text that were understood.
std::size_t understood(std::uint8_t kind, MessageReader::Struct root) {
  std::size_t bytes = 0;
  if (kind == deliveries) {
    for (const library::Delivery& delivery : library::wire::decodeDeliveries(root))
      fuzz::require(!delivery.message || delivery.message->size() <= limits::valuesPerMessage);
  } else if (kind == statesChange) {
    bytes = bytesIn(library::wire::decodeStatesChange(root));
  } else {
    const auto parcel = parcelOf(static_cast<corvid_operation_t>(kind));
    const auto answers = library::wire::decodeResults(parcel, root);
    fuzz::require(answers.size() <= callsInBatch);
    for (const library::Answer& answer : answers) bytes += bytesIn(answer);
  }
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const auto kind = static_cast<std::uint8_t>(data[0] % kinds);
  const std::string_view stream(reinterpret_cast<const char*>(data + 1), size - 1);
  try {
    const auto whole = MessageReader::sizeOf(stream, stream.size());
    if (!whole) return 0;
    const MessageReader message(stream.substr(0, *whole));
    constexpr std::size_t timesRead = 4;
    fuzz::require(understood(kind, message.root()) <= timesRead * *whole);
  } catch (const library::wire::BadMessage&) {
  }
  return 0;
}
