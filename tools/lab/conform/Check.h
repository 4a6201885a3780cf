// One rule that a collector is tried for.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/lab/conform/Device.h"
#include "tools/lab/conform/Reply.h"

namespace corvid::lab::conform {

// What must come back.
enum class Expected {
  taken,      // 2xx
  refused,    // 4xx
  notFailed,  // 2xx, 3xx or 4xx
  notTaken    // 4xx, or the end of the connection
};

// Which address a check is about. What a collector does not offer is not tried.
enum class Address { events, realtime, uploads, logs };

// What was found: what was sent, in words, and what came back.
struct Breach {
  std::string sent;
  std::string answered;
};

// One request on a connection of its own.
struct Trial {
  std::string sent;  // in words, behind "sent "
  std::string bytes;
  Expected expected;
  bool endsWriting = false;  // after the bytes
};

struct Check {
  std::string_view name;  // one word
  Address address;
  std::string_view rule;  // one line, without a full stop
  // Throws std::runtime_error where the collector cannot be reached.
  std::function<std::optional<Breach>(Device& device)> run;
};

// The address's path, where it is offered.
const std::optional<std::string>& pathOf(const Collector& collector, Address address);

// Whether the reply is none of those that are expected. Of an upload (`isUpload`) the word that has
// a device remove its file stands in each answer that takes the file, and in no other.
bool breaks(const Reply& reply, Expected expected, bool isUpload = false);

// Makes the trials one after the other, until one is answered wrongly.
std::optional<Breach> tryAll(const Collector& collector, const std::vector<Trial>& trials,
                             bool isUpload = false);

// A check that makes the trials that `make` gives for a device.
using MakeTrials = std::vector<Trial> (*)(Device& device);
Check checkOf(std::string_view name, Address address, std::string_view rule, MakeTrials make);

// What is wrong with a reply to what was sent; nothing where it is as expected.
std::optional<Breach> breachOf(const Reply& reply, Expected expected, std::string sent);

}  // namespace corvid::lab::conform
