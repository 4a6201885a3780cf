// What is the matter with a storebag before anybody publishes it.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <vector>

#include "base/Value.h"

namespace corvid::storebag {

struct LintFinding {
  // To be known, for it keeps devices silent and may be meant; or wrong: no device does with it
  // what its author wanted.
  enum class Kind { note, wrong };
  Kind kind;
  std::string path;        // of the value: "release.httpPost.clients[0].post_url"
  std::string what;        // one line for people, without a full stop
  std::string suggestion;  // what to write or do instead; empty where that is not known
};

// Looks through the whole content of a storebag, in its order: first what the key table says of
// each value, then what the daemon's own rules make of a section and of its entries. Pure; any
// thread. Under 50 milliseconds for a storebag of 500 entries.
std::vector<LintFinding> lint(const Value& storebag);

std::size_t count(std::span<const LintFinding> findings, LintFinding::Kind kind);
// A line for each, and one with their numbers: "2 wrong, 1 notes".
std::string textOf(std::span<const LintFinding> findings);
// One object: "findings" ("kind", "path", "what", "suggestion", null where there is none), "wrong",
// "notes".
std::string jsonOf(std::span<const LintFinding> findings);

}  // namespace corvid::storebag
