// Identities of backends that tests make by hand.
#pragma once

#include <memory>
#include <utility>

#include "backends/BackendIdentity.h"
#include "base/Value.h"

namespace corvid {

// Of an ordinary device, unless told otherwise.
inline SharedIdentity shared(BackendIdentity identity = {.productFamily = "Robin"}) {
  return std::make_shared<const BackendIdentity>(std::move(identity));
}

inline std::shared_ptr<const Dictionary> shared(Dictionary dictionary) {
  return std::make_shared<const Dictionary>(std::move(dictionary));
}

}  // namespace corvid
