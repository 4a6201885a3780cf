#include "platform/system/SandboxProfile.h"

#include <fmt/format.h>

#include <optional>
#include <string_view>
#include <utility>

#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

using Placeholders = SandboxProfile::Placeholders;
using Refusal = std::optional<Failure>;

Failure wrong(std::string_view key, std::string_view wanted) {
  return {fmt::format("the value of '{}' is not {}", key, wanted)};
}

Refusal readStrings(std::string_view key, const Value& value, std::vector<std::string>& strings) {
  const Array* array = value.array();
  if (array == nullptr) return wrong(key, "an array of texts");
  for (const Value& item : *array) {
    const std::string* text = item.string();
    if (text == nullptr || text->empty()) return wrong(key, "an array of texts");
    strings.push_back(*text);
  }
  return std::nullopt;
}

// Puts the placeholders' values in.
Refusal expand(std::string_view key, const Placeholders& placeholders, std::string& path) {
  if (path.front() != '/' && !path.starts_with("${"))
    return Failure{fmt::format("the path '{}' of '{}' is not absolute", path, key)};
  std::string expanded;
  std::string_view rest = path;
  for (auto start = rest.find("${"); start != rest.npos; start = rest.find("${")) {
    const auto end = rest.find('}', start);
    const auto found = end == rest.npos
                           ? placeholders.end()
                           : placeholders.find(rest.substr(start + 2, end - start - 2));
    if (found == placeholders.end())
      return Failure{fmt::format("the path '{}' of '{}' has an unknown placeholder", path, key)};
    expanded.append(rest.substr(0, start)).append(found->second);
    rest.remove_prefix(end + 1);
  }
  path = expanded.append(rest);
  return std::nullopt;
}

Refusal readPaths(std::string_view key, const Value& value, const Placeholders& placeholders,
                  std::vector<std::string>& paths) {
  std::vector<std::string> strings;
  if (Refusal refusal = readStrings(key, value, strings)) return refusal;
  for (std::string& path : strings) {
    if (Refusal refusal = expand(key, placeholders, path)) return refusal;
    if (!path.empty()) paths.push_back(std::move(path));
  }
  return std::nullopt;
}

Refusal readNetwork(const Value& value, SandboxProfile& profile) {
  const Dictionary* network = value.dictionary();
  if (network == nullptr) return wrong("network", "a dictionary");
  for (const auto& [key, allowed] : *network) {
    bool* const target = key == "tcpConnect" ? &profile.allowsTCPConnect
                         : key == "udp"      ? &profile.allowsUDP
                                             : nullptr;
    if (target == nullptr) return Failure{fmt::format("'network' has an unknown key '{}'", key)};
    if (!allowed.boolean()) return wrong(key, "a boolean");
    *target = *allowed.boolean();
  }
  return std::nullopt;
}

Refusal readSocketFolder(const Value& value, const Placeholders& placeholders,
                         std::string& folder) {
  if (value.string() == nullptr || value.string()->empty()) return wrong("socketFolder", "a text");
  folder = *value.string();
  return expand("socketFolder", placeholders, folder);
}

Refusal readKey(std::string_view key, const Value& value, const Placeholders& placeholders,
                SandboxProfile& profile) {
  if (key == "readOnlyPaths") return readPaths(key, value, placeholders, profile.readOnlyPaths);
  if (key == "readWritePaths") return readPaths(key, value, placeholders, profile.readWritePaths);
  if (key == "socketFolder") return readSocketFolder(value, placeholders, profile.socketFolder);
  if (key == "network") return readNetwork(value, profile);
  if (key == "systemCalls") return readStrings(key, value, profile.systemCalls);
  if (key == "absentSystemCalls") return readStrings(key, value, profile.absentSystemCalls);
  return Failure{fmt::format("unknown key '{}'", key)};
}

}  // namespace

Result<SandboxProfile> SandboxProfile::fromDictionary(const Dictionary& dictionary,
                                                      const Placeholders& placeholders) {
  SandboxProfile profile;
  for (const auto& [key, content] : dictionary)
    if (Refusal refusal = readKey(key, content, placeholders, profile)) return std::move(*refusal);
  if (profile.systemCalls.empty()) return Failure{"'systemCalls' is missing or empty"};
  return profile;
}

Result<SandboxProfile> SandboxProfile::fromFile(const std::string& path,
                                                const Placeholders& placeholders) {
  const Result<Dictionary> dictionary = readDictionaryFile(path);
  if (!dictionary) return dictionary.failure();
  Result<SandboxProfile> profile = fromDictionary(dictionary.value(), placeholders);
  if (!profile) return Failure{path + ": " + profile.failure().message};
  return profile;
}

std::string sandboxProfileInForce(std::string_view name, const Paths& paths) {
  std::string own = paths.administratorsSandboxProfile(name);
  return LocalFileSystem().exists(own) ? own : paths.sandboxProfile(name);
}

Result<SandboxProfile> SandboxProfile::named(std::string_view name, const Paths& paths,
                                             const Deployment& deployment) {
  Result<SandboxProfile> profile =
      fromFile(sandboxProfileInForce(name, paths),
               {{"root", paths.root}, {"caFile", deployment.caFile.value_or(std::string())}});
  if (profile) profile.value().tcpPorts = reachableTCPPorts(deployment);
  return profile;
}

}  // namespace corvid
