#include <cstdio>

#include "tools/storebag/Commands.h"
#include "tools/storebag/Lint.h"
#include "tools/storebag/Source.h"

namespace corvid::storebag {

int runLintCommand(const LintOptions& options) {
  const auto findings = lint(contentOfFile(options.source).storebag);
  std::fputs((options.asJSON ? jsonOf(findings) : textOf(findings)).c_str(), stdout);
  return count(findings, LintFinding::Kind::wrong) > 0 ? 1 : 0;
}

}  // namespace corvid::storebag
