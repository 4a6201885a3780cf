// Who may connect: the files that say so, and whether those whom they name exist.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>

#include "base/NearestWord.h"
#include "base/Text.h"
#include "daemon/check/FolderListing.h"
#include "daemon/check/Inspection.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/system/Entitlements.h"

namespace corvid {

namespace {

constexpr std::string_view right = "com.halcyon.private.corvidd";
constexpr std::array<std::string_view, 3> rights{right, "com.halcyon.private.corvidd.chains",
                                                 "com.halcyon.private.corvidd.control"};

// Where systemd finds units; those of users count too, as their managers' do not.
constexpr std::array<std::string_view, 7> unitFolders{
    "/etc/systemd/system",    "/run/systemd/system",           "/run/systemd/generator",
    "/run/systemd/transient", "/usr/local/lib/systemd/system", "/usr/lib/systemd/system",
    "/lib/systemd/system"};

bool isThere(const std::string& path) {
  std::error_code error;
  return std::filesystem::exists(std::filesystem::symlink_status(path, error));
}

// Whether a unit of that name, or its template, is there; nothing where no folder is.
std::optional<bool> unitExists(const std::string& root, const std::string& unit) {
  std::string pattern;  // of "a@b.service" "a@.service"
  const auto at = unit.find('@');
  const auto end = unit.rfind('.');
  if (at != unit.npos && end != unit.npos && at < end)
    pattern = unit.substr(0, at + 1) + unit.substr(end);
  bool hasFolder = false;
  for (const std::string_view folder : unitFolders) {
    const std::string path = root + std::string(folder);
    if (!isThere(path)) continue;
    hasFolder = true;
    if (isThere(path + "/" + unit) || (!pattern.empty() && isThere(path + "/" + pattern)))
      return true;
  }
  return hasFolder ? std::optional(false) : std::nullopt;
}

void checkUnit(const std::string& path, const std::string& unit, Inspection& it) {
  if (unit.ends_with(".scope"))  // made while the system runs, from no file
    return;
  if (!unit.ends_with(".service") || unit.find('/') != unit.npos)
    return it.found.wrong(
        path, fmt::format("\"{}\" is the name of no unit; it ends in .service or .scope", unit));
  const auto exists = unitExists(it.paths.root, unit);
  if (!exists)
    it.found.note(path, fmt::format("whether there is a unit {} cannot be told here", unit));
  else if (!*exists)
    it.found.wrong(path, fmt::format("there is no unit {}, so nobody matches", unit));
}

void checkMatch(const std::string& path, const Dictionary& match, Inspection& it) {
  for (const auto& [condition, value] : match) {
    if (condition == "unit") {
      checkUnit(path, *value.string(), it);
    } else if (condition != "label" && !Entitlements::accountExists(condition, value)) {
      it.found.wrong(
          path, fmt::format("there is no {} {}, so nobody matches", condition,
                            value.string() ? *value.string() : std::to_string(*value.integer())));
    }
  }
}

void checkRights(const std::string& path, const Dictionary& granted, Inspection& it) {
  for (const auto& [name, value] : granted) {
    if (std::ranges::find(rights, name) == rights.end()) {
      if (const auto meant = nearestWord(name, rights))
        it.found.wrong(path,
                       fmt::format("nothing is known of \"{}\"; there is \"{}\"", name, *meant),
                       it.editing(path, fmt::format("<key>{}</key>", name),
                                  fmt::format("<key>{}</key>", *meant)));
    } else if (!value.boolean()) {
      it.found.wrong(
          path, fmt::format("{} is no boolean, which counts as false; write true or false", name));
    }
  }
}

// Whether the file can entitle anybody to connect.
bool checkEntitlementFile(const std::string& path, Inspection& it) {
  const auto file =
      it.usable(path, readEntitlementFile(path), Findings::Kind::wrong, "gone while it was read");
  if (!file) return false;
  for (const SettingFault& fault : file->faults) it.reportFault(path, fault);
  if (!file->fault.empty()) {
    it.found.wrong(path, file->fault);
    return false;
  }
  checkMatch(path, file->match, it);
  checkRights(path, file->entitlements, it);
  const Value* granted = file->entitlements.find(right);
  if (!granted) {
    it.found.note(path, fmt::format("says nothing of {}", right));
    return false;
  }
  if (!granted->boolean()) return false;
  it.found.right(path,
                 *granted->boolean() ? "lets those connect who match" : "refuses those who match");
  return *granted->boolean();
}

// Only what could be read becomes a file that counts: others lie there for another reason.
void checkOther(const std::string& path, Inspection& it) {
  const std::string folder = it.paths.entitlementsFolder;
  const std::string renamed = std::filesystem::path(path).replace_extension(".plist");
  const auto file = readEntitlementFile(path);
  const bool isMeant = file && file.value().fault.empty() &&
                       path.find(".plist") == std::string::npos && !isThere(renamed);
  it.found.wrong(path,
                 isMeant ? "counts for nothing, as its name does not end in .plist; rename it"
                         : "counts for nothing, as its name does not end in .plist; take it away",
                 it.asRoot(fmt::format("mv -n {} {}", shellWord(path),
                                       shellWord(isMeant ? renamed : folder + "/.."))));
}

// A file that lets whoever runs the check connect.
std::string entitlingRunner(const Inspection& it) {
  const std::string folder = it.paths.entitlementsFolder;
  return it.asRoot(fmt::format(
      "mkdir -p {0} && printf '%s\\n' '<plist version=\"1.0\"><dict><key>match</key><dict>"
      "<key>user</key><integer>{1}</integer></dict><key>entitlements</key><dict>"
      "<key>{2}</key><true/></dict></dict></plist>' > {3} && chmod 644 {3}",
      shellWord(folder), it.runner, right,
      shellWord(unusedName(folder + "/50-local-") + ".plist")));
}

}  // namespace

void checkEntitlements(Inspection& it) {
  const std::string& folder = it.paths.entitlementsFolder;
  const auto files = propertyListsIn(folder);
  if (!files && files.failure().code == EACCES) return it.reportUnreadable(folder);
  if (!files && files.failure().code != ENOENT)
    return it.found.wrong(folder, files.failure().message + "; let the daemon's user read it");
  bool anybody = false;
  const std::size_t wrongBefore = it.found.count(Findings::Kind::wrong);
  for (const std::string& path : files ? files.value() : std::vector<std::string>())
    anybody |= checkEntitlementFile(path, it);
  for (const std::string& path : othersIn(folder)) checkOther(path, it);
  // What is wrong with a file may be all that keeps it from entitling somebody.
  const bool isSound = it.found.count(Findings::Kind::wrong) == wrongBefore;
  if (!anybody)
    it.found.wrong(folder,
                   fmt::format("entitles nobody to {}, so every client is refused; add a property "
                               "list, such as one for user {}",
                               right, it.runner),
                   isSound ? entitlingRunner(it) : std::string());
}

}  // namespace corvid
