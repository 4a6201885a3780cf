#include "daemon/CheckConfig.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/Reading.h"
#include "base/Result.h"
#include "config/DeviceInformation.h"
#include "config/StorebagFetch.h"
#include "platform/Deployment.h"
#include "platform/data/Crypto.h"
#include "platform/data/DeploymentFile.h"
#include "platform/data/RegularFile.h"
#include "platform/system/SandboxProfile.h"
#include "platform/system/SettingsFile.h"
#include "protocol/Keys.h"

namespace corvid {

namespace {

using Kind = ConfigFinding::Kind;

class ConfigCheck {
 public:
  explicit ConfigCheck(const Paths& paths) : _paths(paths) {}

  std::vector<ConfigFinding> run() {
    checkSandboxProfile();
    checkDeployment();
    checkPublicKey();
    checkInfo();
    checkEntitlements();
    checkDevice();
    checkPreferences();
    return std::move(_findings);
  }

 private:
  void right(const std::string& path, std::string_view what) { add(Kind::right, path, what); }
  void note(const std::string& path, std::string_view what) { add(Kind::note, path, what); }
  void wrong(const std::string& path, std::string_view what) { add(Kind::wrong, path, what); }
  // Failures of reading name the file already.
  void add(Kind kind, const std::string& path, std::string_view what) {
    const std::string prefix = path + ": ";
    if (what.starts_with(prefix)) what.remove_prefix(prefix.size());
    _findings.push_back({kind, prefix + std::string(what)});
  }

  // The dictionary in a property list. Nothing where there is no file, which is a finding of kind
  // `ifMissing` with the text `missing`, and nothing where it is of no use, which is wrong.
  std::optional<Dictionary> dictionaryIn(const std::string& path, Kind ifMissing,
                                         std::string_view missing) {
    Result<Dictionary> dictionary = readDictionaryFile(path);
    if (dictionary) return std::move(dictionary).value();
    if (dictionary.failure().code == ENOENT)
      add(ifMissing, path, missing);
    else
      wrong(path, dictionary.failure().message +
                      "; make it a property list with a dictionary that the daemon may read");
    return std::nullopt;
  }

  void checkSandboxProfile();
  void checkDeployment();
  void checkCAFile(const std::string& path);
  void checkPublicKey();
  void checkInfo();
  void checkEntitlements();
  // Whether the file can entitle anybody to connect.
  bool checkEntitlementFile(const std::string& path);
  void checkDevice();
  void checkPreferences();

  const Paths& _paths;
  std::vector<ConfigFinding> _findings;
};

// Paths of the property lists in a folder, in name order. Nothing when it cannot be read.
std::optional<std::vector<std::string>> propertyListsIn(const std::string& folder,
                                                        std::error_code& error) {
  std::vector<std::string> paths;
  for (std::filesystem::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename().string();
    if (name.ends_with(".plist") && !name.starts_with('.')) paths.push_back(entry->path().string());
  }
  if (error) return std::nullopt;
  std::ranges::sort(paths);
  return paths;
}

void ConfigCheck::checkSandboxProfile() {
  const std::string path = fmt::format("{}/{}.plist", _paths.sandboxFolder, kCorvidServiceName);
  const auto deployment = readDeployment(_paths.deploymentFile);
  const auto caFile = deployment ? deployment.value().caFile : std::nullopt;
  const auto profile = SandboxProfile::fromFile(
      path, {{"root", _paths.root}, {"caFile", caFile.value_or(std::string())}});
  if (profile)
    right(path, "a sandbox profile");
  else
    wrong(path, profile.failure().message +
                    ", so the daemon does not start; install the daemon's own profile");
}

void ConfigCheck::checkDeployment() {
  const std::string& path = _paths.deploymentFile;
  if (!dictionaryIn(path, Kind::note, "missing: no storebag server is reached")) return;
  const Result<Deployment> deployment = readDeployment(path);
  if (!deployment) {
    wrong(path, deployment.failure().message + "; correct it");
    return;
  }
  const Deployment& settings = deployment.value();
  for (const std::string& setting : settings.passedOver)
    wrong(path, fmt::format("\"{}\" is of the wrong type and is passed over; correct it", setting));
  right(path, fmt::format("storebags come from {}, on internal builds from {}",
                          settings.productionStorebagHost, settings.internalStorebagHost));
  if (settings.allowInsecureHTTP)
    note(path, "AllowInsecureHTTP lets plain http through; for tests only");
  if (settings.caFile) checkCAFile(*settings.caFile);
}

void ConfigCheck::checkCAFile(const std::string& path) {
  const Result<std::string> content = readSettingsFile(path);
  if (!content)
    wrong(path, content.failure().message + ", so no server is trusted; correct CAFile");
  else if (content.value().find("-----BEGIN CERTIFICATE-----") == std::string::npos)
    wrong(path, "no certificate in PEM form, so no server is trusted; correct CAFile");
  else
    right(path, "certificates to trust");
}

void ConfigCheck::checkPublicKey() {
  const Result<std::string> content = readRegularFile(_paths.publicKeyFile, publicKeyLimit);
  if (!content) {
    wrong(_paths.publicKeyFile,
          content.failure().message + "; install the key that the storebags are signed with");
  } else if (!RSAPublicKey::fromDER(content.value())) {
    wrong(_paths.publicKeyFile,
          "no RSA public key in DER form; convert it with openssl rsa -outform DER");
  } else {
    right(_paths.publicKeyFile, "an RSA public key");
  }
}

void ConfigCheck::checkInfo() {
  const auto info = dictionaryIn(_paths.infoFile, Kind::note, "missing: the version is 8.0");
  if (!info) return;
  if (!readRegularFile(_paths.infoFile, infoFileLimit))
    return wrong(
        _paths.infoFile,
        fmt::format("longer than {} bytes, so the version is 8.0; shorten it", infoFileLimit));
  if (const std::string* version = stringAt(*info, "BundleVersion"))
    right(_paths.infoFile, "version " + *version);
  else
    wrong(_paths.infoFile, "no text under BundleVersion, so the version is 8.0; add one");
}

void ConfigCheck::checkEntitlements() {
  std::error_code error;
  const auto paths = propertyListsIn(_paths.entitlementsFolder, error);
  if (!paths && error != std::errc::no_such_file_or_directory) {
    wrong(_paths.entitlementsFolder, error.message() + "; let the daemon's user read it");
    return;
  }
  bool anybody = false;
  for (const std::string& path : paths.value_or(std::vector<std::string>()))
    anybody |= checkEntitlementFile(path);
  if (!anybody)
    wrong(
        _paths.entitlementsFolder,
        "entitles nobody to com.halcyon.private.corvidd, so every client is refused; add a property list");
}

bool ConfigCheck::checkEntitlementFile(const std::string& path) {
  const auto file = dictionaryIn(path, Kind::wrong, "gone while it was read");
  if (!file) return false;
  const Dictionary* match = dictionaryAt(*file, "match");
  const Dictionary* entitlements = dictionaryAt(*file, "entitlements");
  if (!match || match->empty()) {
    wrong(path, "matches nobody; give a dictionary \"match\" with user, group, unit or label");
    return false;
  }
  for (const auto& [condition, value] : *match) {
    const bool isAccount = condition == "user" || condition == "group";
    if (!isAccount && condition != "unit" && condition != "label") {
      wrong(
          path,
          fmt::format(
              "matches nobody, because nothing is known of \"{}\"; use user, group, unit or label",
              condition));
      return false;
    }
    if (!value.string() && !(isAccount && value.integer())) {
      wrong(path, fmt::format("matches nobody, because \"{}\" is no {}; correct its type",
                              condition, isAccount ? "name or number" : "text"));
      return false;
    }
  }
  if (!entitlements) {
    wrong(path, "grants nothing; give a dictionary \"entitlements\"");
    return false;
  }
  const Value* granted = entitlements->find("com.halcyon.private.corvidd");
  if (!granted) {
    note(path, "says nothing of com.halcyon.private.corvidd");
    return false;
  }
  if (!granted->boolean()) {
    wrong(path,
          "com.halcyon.private.corvidd is no boolean, which counts as false; write true or false");
    return false;
  }
  right(path, *granted->boolean() ? "lets those connect who match" : "refuses those who match");
  return *granted->boolean();
}

void ConfigCheck::checkDevice() {
  const auto device = dictionaryIn(_paths.deviceFile, Kind::note,
                                   "missing: the machine answers, and is no internal build");
  if (!device) return;
  for (const auto& [key, value] : *device) {
    if (value.string()) continue;
    wrong(_paths.deviceFile,
          fmt::format("\"{}\" is no text and is passed over; write it as one", key));
    return;
  }
  right(_paths.deviceFile, fmt::format("answers for {} keys", device->size()));
}

void ConfigCheck::checkPreferences() {
  std::error_code error;
  const auto paths = propertyListsIn(_paths.preferencesFolder, error);
  if (!paths) {
    if (error == std::errc::no_such_file_or_directory)
      note(_paths.preferencesFolder, "missing: made when the first preference is set");
    else
      wrong(_paths.preferencesFolder, error.message() + "; give it to the daemon's user");
    return;
  }
  for (const std::string& path : *paths)
    if (const auto suite = dictionaryIn(path, Kind::note, "gone while it was read"))
      right(path, fmt::format("{} preferences", suite->size()));
}

}  // namespace

std::vector<ConfigFinding> checkConfig(const Paths& paths) { return ConfigCheck(paths).run(); }

int printConfigCheck(const Paths& paths) {
  bool anyWrong = false;
  for (const auto& [kind, text] : checkConfig(paths)) {
    anyWrong |= kind == Kind::wrong;
    const std::string_view mark = kind == Kind::wrong  ? "WRONG"
                                  : kind == Kind::note ? "note"
                                                       : "ok";
    fmt::print("{:5} {}\n", mark, text);
  }
  return anyWrong ? 1 : 0;
}

}  // namespace corvid
