// The daemon's sandbox profile as it stood when this program was built.
#pragma once

#include <string_view>

namespace corvid::lab {

extern const std::string_view sandboxProfile;

}  // namespace corvid::lab
