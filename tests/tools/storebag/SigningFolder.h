// A folder with keys, a storebag and what the commands make of them.
#pragma once

#include <string>

#include "base/Value.h"
#include "platform/data/PropertyList.h"
#include "tests/support/Scratch.h"
#include "tests/support/SigningKeys.h"
#include "tests/tools/storebag/StorebagTool.h"
#include "tools/signing/SigningKey.h"

namespace corvid {

// What nothing is wrong with.
inline const Dictionary& publishedStorebag() {
  static const Dictionary storebag{
      {"version", "7.1"},
      {"release",
       Dictionary{
           {"httpPost",
            Dictionary{{"clients", Array{Dictionary{
                                       {"client", "Player"},
                                       {"post_url", "https://collector.example.com/batch"},
                                       {"locale_whitelist", Array{"DE"}},
                                       {"event_threshold", 9},
                                       {"sampling_threshold", 1.0},
                                       {"filters", Array{Dictionary{{"key", "account"},
                                                                    {"action", "sha256"}}}}}}}}}}}};
  return storebag;
}

struct SigningFolder {
  // Of a key with that name: both halves as files, and the ID.
  std::string privateKey(const std::string& name) const { return signingKeyFile(name); }
  std::string publicKey(const std::string& name) const {
    return folder.write(name + ".der", signing::SigningKey::open(privateKey(name)).publicKeyDER());
  }
  std::string keyID(const std::string& name) const {
    return signing::SigningKey::open(privateKey(name)).id();
  }

  const ScratchFolder folder;
  const std::string storebag =
      folder.write("storebag.plist", writeXMLPropertyList(publishedStorebag()));
  const std::string envelope = folder.path("tessel");
};

}  // namespace corvid
