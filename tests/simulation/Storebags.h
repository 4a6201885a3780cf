// Storebags as their authors might publish them.
#pragma once

#include "base/Value.h"

namespace corvid::simulation {

// The same for the same number. Most of them let most clients report; authors forget keys now and
// then.
Dictionary storebagOf(unsigned number);

}  // namespace corvid::simulation
