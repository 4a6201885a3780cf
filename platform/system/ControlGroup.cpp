#include "platform/system/ControlGroup.h"

#include "base/Text.h"

namespace corvid {

namespace {

// The first part of the path that is no slice. What stands below it is the unit's own business, in
// a user's service manager even the user's.
std::string unitOfGroup(std::string_view path) {
  for (std::string_view part : split(path, '/')) {
    if (part.empty() || part.ends_with(".slice")) continue;
    // Names that would collide with the kernel's own are escaped.
    if (part.starts_with('_')) part.remove_prefix(1);
    if (part.ends_with(".service") || part.ends_with(".scope")) return std::string(part);
    break;
  }
  return {};
}

// The path in the line "ID:CONTROLLERS:PATH" of that hierarchy; empty where there is none.
std::string_view groupPath(std::string_view lines, std::string_view hierarchy) {
  for (const std::string_view line : split(lines, '\n')) {
    const auto id = line.find(':');
    if (id == std::string_view::npos) continue;
    const auto controllers = line.find(':', id + 1);
    if (controllers == std::string_view::npos) continue;
    if (line.substr(id + 1, controllers - id - 1) == hierarchy) return line.substr(controllers + 1);
  }
  return {};
}

}  // namespace

std::string unitOfControlGroups(std::string_view lines) {
  // The unified hierarchy has no controllers here; beside older ones systemd may keep its own.
  std::string unit = unitOfGroup(groupPath(lines, ""));
  if (unit.empty()) unit = unitOfGroup(groupPath(lines, "name=systemd"));
  return unit;
}

}  // namespace corvid
