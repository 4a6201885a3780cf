// Keys for tests to sign storebags with. Making one takes half a second, so that all tests of a
// build folder share them.
#pragma once

#include <string>
#include <string_view>

#include "tests/support/Scratch.h"

namespace corvid {

// The file of the key with this name, for lab::StorebagSigner; the first test that asks makes it.
// Any number of processes at once.
std::string signingKeyFile(std::string_view name);

// A root in which a lab finds its key.
class ScratchLab : public ScratchRoot {
 public:
  ScratchLab() { write("lab/signing-key.pem", contentOf(signingKeyFile("trusted"))); }
};

}  // namespace corvid
