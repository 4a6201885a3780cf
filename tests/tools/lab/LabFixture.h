// A lab in a scratch folder and a client that trusts it.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tests/support/SigningKeys.h"
#include "tests/tools/lab/Peer.h"
#include "tools/lab/Lab.h"

namespace corvid::lab {

class LabFixture : public testing::Test {
 protected:
  // "storebags", "events", "realtime" or "control".
  std::string address(std::string_view server) const { return *stringAt(lab.addresses(), server); }
  std::string bagURL(std::string_view name) const {
    return address("storebags") + "/bags/birch/" + std::string(name);
  }
  // Everything that the lab has written down.
  std::vector<Dictionary> received() const {
    std::vector<Dictionary> entries;
    std::ifstream file(root.path("lab/received.jsonl"));
    for (std::string line; std::getline(file, line);) {
      const Result<Value> entry = parseJSON(line);
      const Dictionary* object = entry ? entry.value().dictionary() : nullptr;
      EXPECT_TRUE(object) << line.substr(0, 1000);
      if (object) entries.push_back(*object);
    }
    return entries;
  }

  ScratchLab root;
  Lab lab{root.path()};
  Peer peer{root.path("lab/tls/ca.pem")};
};

}  // namespace corvid::lab
