// Property-list values in JSON: what JSON lacks is written {"$date":SECONDS} and
// {"$data":"BASE64"}.
#pragma once

#include "platform/base/Result.h"
#include "platform/base/Value.h"

namespace corvid::ctl {

// `json` with every {"$date":…} and {"$data":…} replaced by what it stands for. A failure names the
// one that cannot be read.
Result<Value> valueFromJSON(const Value& json);

// `value` with dates and data replaced by their JSON forms.
Value jsonFromValue(const Value& value);

}  // namespace corvid::ctl
