// What the daemon tells of itself, for people.
#pragma once

#include <string>

#include "base/Value.h"
#include "tools/corvidctl/Table.h"

namespace corvid::ctl {

// Of the objects and arrays that the control socket gives. What lacks or has another type is left
// out. Each line with its end.
std::string statusText(const Dictionary& status, const Screen& screen);
std::string sessionsText(const Array& sessions, const Screen& screen);
// Of one decision, an event's or a post's.
std::string decisionText(const Dictionary& decision, const Screen& screen);
// The busiest sessions first. `before` is what stood there `seconds` ago, for rates; empty at
// first.
std::string topText(const Dictionary& status, const Array& sessions, const Array& before,
                    double seconds, const Screen& screen);

}  // namespace corvid::ctl
