#include "platform/data/SettingFault.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "base/NearestWord.h"

namespace corvid {

std::vector<SettingFault> unknownKeys(const Dictionary& settings,
                                      std::span<const std::string_view> known) {
  std::vector<SettingFault> faults;
  for (const auto& [key, value] : settings) {
    if (std::ranges::find(known, key) != known.end()) continue;
    const auto meant = nearestWord(key, known);
    if (!meant) {
      faults.push_back({key, "is nothing that corvidd reads"});
      continue;
    }
    SettingFault fault{key, fmt::format("is nothing that corvidd reads; it reads \"{}\"", *meant)};
    if (!settings.contains(*meant)) {
      fault.text = fmt::format("<key>{}</key>", key);
      fault.replacement = fmt::format("<key>{}</key>", *meant);
    }
    faults.push_back(std::move(fault));
  }
  return faults;
}

}  // namespace corvid
