// The commands of corvid-storebag that say what devices do with a storebag; as in Commands.h.
#pragma once

#include <string>
#include <vector>

namespace corvid::storebag {

struct ExplainOptions {
  std::string source;
  std::string clientType;  // a number, or a name
  std::string facts;       // a JSON object or "@FILE"; empty: none
  std::string event;       // the same
  bool asJSON = false;
};
// `explain`: what a client on a device gets of the storebag, and what becomes of its event.
int runExplainCommand(const ExplainOptions& options);

struct TestOptions {
  std::string source;
  std::string tests;      // as in policy/PolicyTests.h
  std::string junitFile;  // replaced, unless it is a private key; empty: none
  bool asJSON = false;
};
// `test`: whether the storebag does what its tests expect; 1 where not.
int runTestCommand(const TestOptions& options);

struct DiffOptions {
  std::string oldSource;
  std::string newSource;
  std::vector<std::string> facts;  // each a JSON object with "clientType", or "@FILE"
  bool asJSON = false;
};
// `diff`: what another storebag changes, and for whom: 1 where it does, 2 for a CommandError, which
// has been printed.
int runDiffCommand(const DiffOptions& options);

}  // namespace corvid::storebag
