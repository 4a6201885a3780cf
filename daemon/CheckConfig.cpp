#include "daemon/CheckConfig.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <optional>
#include <string_view>
#include <utility>

#include "base/Result.h"
#include "config/DeviceInformation.h"
#include "config/StorebagFetch.h"
#include "platform/data/Crypto.h"
#include "platform/data/Deployment.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"
#include "platform/system/Entitlements.h"
#include "platform/system/SandboxProfile.h"
#include "platform/system/SystemDeviceInformation.h"
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

  // What a property list was read as. Nothing where there is no file, which is a finding of kind
  // `ifMissing` with the text `missing`, and nothing where it is of no use, which is wrong.
  template <class T>
  std::optional<T> usable(const std::string& path, Result<T> read, Kind ifMissing,
                          std::string_view missing) {
    if (read) return std::move(read).value();
    if (read.failure().code == ENOENT)
      add(ifMissing, path, missing);
    else
      wrong(path, read.failure().message +
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

void ConfigCheck::checkSandboxProfile() {
  const std::string path = _paths.sandboxProfile(kCorvidServiceName);
  const auto deployment = readDeployment(_paths.deploymentFile);
  const auto profile = SandboxProfile::named(kCorvidServiceName, _paths,
                                             deployment ? deployment.value() : Deployment());
  if (profile)
    right(path, "a sandbox profile");
  else
    wrong(path, profile.failure().message +
                    ", so the daemon does not start; install the daemon's own profile");
}

void ConfigCheck::checkDeployment() {
  const std::string& path = _paths.deploymentFile;
  const auto settings =
      usable(path, readDeployment(path), Kind::note, "missing: no storebag server is reached");
  if (!settings) return;
  for (const std::string& setting : settings->passedOver)
    wrong(path, fmt::format("\"{}\" is of the wrong type and is passed over; correct it", setting));
  right(path, fmt::format("storebags come from {}, on internal builds from {}",
                          settings->productionStorebagHost, settings->internalStorebagHost));
  if (settings->allowInsecureHTTP)
    note(path, "AllowInsecureHTTP lets plain http through; for tests only");
  if (settings->caFile) checkCAFile(*settings->caFile);
}

void ConfigCheck::checkCAFile(const std::string& path) {
  const Result<std::string> content = readRegularFile(path);
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
  const std::string& path = _paths.infoFile;
  LocalFileSystem files;
  auto read = bundleVersion(files, path);
  if (!read && read.failure().code == EFBIG)
    return wrong(path, fmt::format("longer than {} bytes, so the version is 8.0; shorten it",
                                   infoFileLimit));
  const auto version = usable(path, std::move(read), Kind::note, "missing: the version is 8.0");
  if (!version) return;
  if (*version)
    right(path, "version " + **version);
  else
    wrong(path, "no text under BundleVersion, so the version is 8.0; add one");
}

void ConfigCheck::checkEntitlements() {
  const auto paths = propertyListsIn(_paths.entitlementsFolder);
  if (!paths && paths.failure().code != ENOENT)
    return wrong(_paths.entitlementsFolder,
                 paths.failure().message + "; let the daemon's user read it");
  bool anybody = false;
  for (const std::string& path : paths ? paths.value() : std::vector<std::string>())
    anybody |= checkEntitlementFile(path);
  if (!anybody)
    wrong(
        _paths.entitlementsFolder,
        "entitles nobody to com.halcyon.private.corvidd, so every client is refused; add a property list");
}

bool ConfigCheck::checkEntitlementFile(const std::string& path) {
  const auto file = usable(path, readEntitlementFile(path), Kind::wrong, "gone while it was read");
  if (!file) return false;
  if (!file->fault.empty()) {
    wrong(path, file->fault);
    return false;
  }
  const Value* granted = file->entitlements.find("com.halcyon.private.corvidd");
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
  const std::string& path = _paths.deviceFile;
  const auto device = usable(path, readDeviceAnswers(path), Kind::note,
                             "missing: the machine answers, and is no internal build");
  if (!device) return;
  if (device->passedOver.empty())
    right(path, fmt::format("answers for {} keys", device->answers.size()));
  else
    wrong(path, fmt::format("\"{}\" is no text and is passed over; write it as one",
                            device->passedOver.front()));
}

void ConfigCheck::checkPreferences() {
  const std::string& folder = _paths.preferencesFolder;
  const auto paths = propertyListsIn(folder);
  if (!paths && paths.failure().code == ENOENT)
    return note(folder, "missing: made when the first preference is set");
  if (!paths) return wrong(folder, paths.failure().message + "; give it to the daemon's user");
  for (const std::string& path : paths.value())
    if (const auto suite =
            usable(path, readDictionaryFile(path), Kind::note, "gone while it was read"))
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
