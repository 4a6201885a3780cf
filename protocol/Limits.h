// What a client may do to the daemon, and what the client library keeps to. A client that breaks
// one of the limits of a message loses its connection; the others hold it back or drop.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace corvid::limits {

// Connections that are open at the same time; one more is closed at once.
inline constexpr std::size_t connections = 512;
inline constexpr std::size_t connectionsPerUser = 256;

// Of those who look at the daemon, counted apart from clients.
inline constexpr std::size_t controlConnections = 64;

// Descriptors that are left to everything else: past it connections are closed at once.
inline constexpr std::size_t descriptorReserve = 128;

// One message on the socket, with everything that travels in it.
inline constexpr std::size_t messageBytes = std::size_t{16} << 20;
inline constexpr std::size_t segmentsPerMessage = 128;
inline constexpr std::size_t capabilitiesPerMessage = 4;
// Open files that travel with a message.
inline constexpr std::size_t descriptorsPerMessage = 1;
// Arrays and dictionaries within each other; a dictionary of plain values has depth 1.
inline constexpr std::size_t valueNesting = 32;
inline constexpr std::size_t valuesPerMessage = 65536;
// Events that travel in one call.
inline constexpr std::size_t messagesPerCall = 256;

// Session info, user info and frameworks that one call brings. A session keeps them, each of its
// backends has a copy, and every record carries the user info.
inline constexpr std::size_t sessionInfoBytes = std::size_t{256} << 10;
// URL of a file: the longest path with every byte of it escaped.
inline constexpr std::size_t fileURLBytes = 16384;
// A file that is uploaded.
inline constexpr std::size_t uploadBytes = std::size_t{256} << 20;
// Of the daemon's disk for all uploads together, of which one user's may take two thirds; past it a
// further one is refused.
inline constexpr std::size_t uploadBytesUnderWay = 4 * uploadBytes;

// Calls that have begun and are not answered; past it nothing more is read from the client.
inline constexpr std::size_t callsInFlight = 64;
// Calls that are answered and that the client has not acknowledged.
inline constexpr std::size_t unfinishedCalls = 1024;
// From the first bytes of a message to its last, while the daemon reads; and, for an answer of more
// than largeAnswerBytes, until the client has taken it.
inline constexpr std::chrono::seconds messageTime{30};
inline constexpr std::size_t largeAnswerBytes = std::size_t{256} << 10;
// Until the client has answered that a file is removed; after that its upload is answered all the
// same.
inline constexpr std::chrono::seconds removalTime{10};
// Texts in one answer; one that finds no room is left out.
inline constexpr std::size_t answerTextBytes = messageBytes - 16384;

// Aggregator deliveries that wait for a client; past either the oldest are dropped.
inline constexpr std::size_t deliveriesWaiting = 1024;
inline constexpr std::size_t deliveryBytesWaiting = std::size_t{4} << 20;
// Delivery calls that the client has not acknowledged; past it deliveries wait. As many as calls,
// so that each call of a client that keeps to its limit may cause one.
inline constexpr std::size_t deliveriesInFlight = unfinishedCalls;

}  // namespace corvid::limits
