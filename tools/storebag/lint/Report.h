// The findings of a lint as they come.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Value.h"
#include "tools/storebag/Lint.h"

namespace corvid::storebag {

class Report {
 public:
  void wrong(std::string path, std::string what, std::string suggestion = {});
  // Nothing more is noted of a value that is wrong.
  void note(std::string path, std::string what, std::string suggestion = {});

  std::vector<LintFinding> take() && { return std::move(_findings); }

 private:
  std::vector<LintFinding> _findings;
  std::set<std::string> _wrongPaths;
};

std::string join(const std::string& path, std::string_view key);  // "path.key"
std::string at(const std::string& path, std::size_t index);       // "path[index]"

// A text that only a test server replaces: "${events}".
bool isPlaceholder(const Value& value);

}  // namespace corvid::storebag
