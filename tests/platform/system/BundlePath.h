// Where the bundles are that tests load.
#pragma once

#include <string>

namespace corvid {

inline std::string bundlePath(const std::string& bundle) {
  return std::string(CORVID_BUNDLES_FOLDER) + "/" + bundle + ".so";
}

}  // namespace corvid
