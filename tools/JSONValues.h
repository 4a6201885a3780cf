// Property-list values in JSON: what JSON lacks is written {"$date":SECONDS} and
// {"$data":"BASE64"}.
#pragma once

#include <functional>
#include <optional>
#include <string>

#include "base/Result.h"
#include "base/Value.h"

namespace corvid::tools {

// A copy of `value` in which every value, itself included, that `replacement` gives another for is
// that other.
using Replacement = std::function<std::optional<Value>(const Value&)>;
Value replaced(const Value& value, const Replacement& replacement);

// `json` with every {"$date":…} and {"$data":…} replaced by what it stands for. A failure names the
// one that cannot be read.
Result<Value> valueFromJSON(const Value& json);

// What a word of a command line means: JSON where it is JSON (true, 4, "4", {"$date":0}), else the
// word itself as a text.
Result<Value> valueFromWord(const std::string& word);

// `value` with dates and data replaced by their JSON forms.
Value jsonFromValue(const Value& value);

}  // namespace corvid::tools
