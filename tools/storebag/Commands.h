// The commands of corvid-storebag, and what they are given.
//
// Each gives the exit status of the program and prints to standard output. What cannot be done is a
// CommandError, exit status 1; what cannot be meant is a tools::InputError, exit status 64.
#pragma once

#include <string>
#include <vector>

#include "tools/storebag/Source.h"

namespace corvid::storebag {

struct KeygenOptions {
  std::string folder;  // made where it is missing
  int bits = 3072;
};
// `keygen`: a new key in "private.pem", for its owner only, and its public half in "publicKey.der".
// Neither replaces a file. Prints the key's ID.
int runKeygenCommand(const KeygenOptions& options);

struct SignOptions {
  std::vector<std::string> keys;  // PEM files, or URIs that OpenSSL has a provider for
  std::string source;             // a property list, JSON, or an envelope, which is signed anew
  std::string output;             // appears in one step; never in the place of a private key
  bool force = false;             // although lint finds something wrong
};
// `sign`: the envelope, which a device with any of the keys takes. What lint finds wrong is a
// CommandError, or with force a warning.
int runSignCommand(const SignOptions& options);

struct VerifyOptions {
  std::vector<std::string> publicKeys;  // DER files, tried in this order
  bool requiresSHA256 = false;
  Location source;
  bool asJSON = false;
};
// `verify`: whether a device with those keys uses the storebag; 1 where not.
int runVerifyCommand(const VerifyOptions& options);

struct ShowOptions {
  Location source;
  bool asJSON = false;
};
// `show`: the content, as a property list in XML or as JSON.
int runShowCommand(const ShowOptions& options);

struct LintOptions {
  std::string source;  // a file
  bool asJSON = false;
};
// `lint`: what is the matter with a storebag. 1 where something is wrong.
int runLintCommand(const LintOptions& options);

// `keys`: every key that a storebag may have.
int runKeysCommand(bool asJSON);
// Their names by the places where they stand, in lines for a command's help.
std::string keysForHelp();

}  // namespace corvid::storebag
