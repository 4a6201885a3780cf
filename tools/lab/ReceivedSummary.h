// What the lab received, for people.
#pragma once

#include <string>

#include "base/Value.h"

namespace corvid::lab {

// One entry of received.jsonl as a few lines: what came, how it was labelled, the events in it.
std::string summary(const Dictionary& entry);

}  // namespace corvid::lab
