// `storebag`: what is in force, as the daemon reads it.
#include <fmt/format.h>

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tools/JSONValues.h"
#include "tools/corvidctl/Client.h"
#include "tools/corvidctl/Commands.h"
#include "tools/corvidctl/ControlClient.h"
#include "tools/corvidctl/Table.h"

namespace corvid::ctl {

namespace {

// What the daemon's status says of each storebag that it has.
Array standingsIn(const std::string& json) {
  const Result<Value> status = parseJSON(json);
  const Dictionary* const object = status ? status.value().dictionary() : nullptr;
  const Array* const storebags = object ? arrayAt(*object, "storebags") : nullptr;
  if (!storebags) throw CallError("the daemon's answer cannot be read");
  return *storebags;
}

Value contentIn(const std::string& propertyList) {
  Result<Value> content = parsePropertyList(propertyList);
  if (!content) throw CallError("the daemon's answer cannot be read: " + content.failure().message);
  return std::move(content).value();
}

std::string jsonOf(Dictionary storebag, const std::string& content) {
  storebag.set("content", tools::jsonFromValue(contentIn(content)));
  const auto json = writeJSON(storebag);
  if (!json) throw CallError("the storebag holds what JSON cannot; without --json it is shown");
  return *json + "\n";
}

// "tessel 2026.11, key 0123456789abcdef, 3 min old".
std::string titleOf(const Dictionary& storebag) {
  const auto text = [&](std::string_view key) { return textAt(storebag, key).value_or("none"); };
  return fmt::format("{} {}, key {}, {} old\n", text("name"), text("version"), text("keyID"),
                     age(asNumber(storebag.find("ageSeconds")).value_or(0)));
}

}  // namespace

int runStorebagCommand(const std::string& root, const std::optional<std::string>& name,
                       bool asJSON) {
  ControlClient control(root);
  bool found = false;
  for (const Value& each : standingsIn(control.status())) {
    const Dictionary* const storebag = each.dictionary();
    const auto its = storebag ? textAt(*storebag, "name") : std::nullopt;
    if (!its || (name && *its != *name)) continue;
    const std::string content = control.storebag(*its);
    if (content.empty()) continue;
    found = true;
    const std::string text = asJSON ? jsonOf(*storebag, content) : titleOf(*storebag) + content;
    std::fwrite(text.data(), 1, text.size(), stdout);
  }
  if (found) return 0;
  throw CallError(
      fmt::format("{} is in force; corvidctl status says which were asked for, and what failed",
                  name ? "no storebag " + *name : "no storebag"));
}

}  // namespace corvid::ctl
