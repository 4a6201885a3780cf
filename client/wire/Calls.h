// The calls of protocol/corvid.capnp: what they ask and what is answered, to and from the wire.
#pragma once

#include <cstdint>
#include <vector>

#include "client/Answer.h"
#include "client/Call.h"
#include "client/wire/MessageBuilder.h"
#include "client/wire/MessageReader.h"

namespace corvid::library::wire {

// The operation of ClientSession that a parcel is.
std::uint16_t methodOf(const Parcel& parcel);
// Its parameters. A file, where one travels, is the message's first capability. `hearsOfStates`:
// the host wants to know how its states change.
void encodeParameters(const Parcel& parcel, bool hearsOfStates, MessageBuilder::Struct payload);

// The rest throws BadMessage.

// What was answered, for each call of the parcel as far as the daemon answered it.
std::vector<Answer> decodeResults(const Parcel& parcel, MessageReader::Struct results);
// One that is not understood is left out.
std::vector<library::Delivery> decodeDeliveries(MessageReader::Struct parameters);
States decodeStatesChange(MessageReader::Struct parameters);

}  // namespace corvid::library::wire
