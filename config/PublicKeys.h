// The keys that this device takes storebags by.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "platform/FileSystem.h"
#include "platform/Paths.h"
#include "platform/data/Crypto.h"

namespace corvid {

// A longer public key file counts as none.
inline constexpr std::size_t publicKeyLimit = std::size_t{16} << 10;
// More files than these in the folder are not read.
inline constexpr std::size_t mostFurtherKeys = 32;

struct PublicKeys {
  struct Fault {
    std::string path;
    std::string what;  // behind the path
    int code;          // the system's, or RSAPublicKey::fromDER's
  };

  std::vector<RSAPublicKey> usable{};  // in the order in which they are tried
  std::vector<std::string> files{};    // of those, in the same order
  std::vector<Fault> faults{};         // of files that are no usable key
  std::string mainFile{};              // publicKey.der, whether it is there or not
};

// The administrator's publicKey.der, or, where there is none, the one that came with the system.
std::string publicKeyFileInForce(FileSystem& files, const Paths& paths);

// publicKey.der, then *.der of the folder for further keys, in name order. Logs nothing.
PublicKeys readPublicKeys(FileSystem& files, const Paths& paths);

}  // namespace corvid
