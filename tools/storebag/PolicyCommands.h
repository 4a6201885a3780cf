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

}  // namespace corvid::storebag
