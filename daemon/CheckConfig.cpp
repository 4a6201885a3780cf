#include "daemon/CheckConfig.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

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

class Findings {
 public:
  void right(const std::string& path, std::string_view what) { add(Kind::right, path, what); }
  void note(const std::string& path, std::string_view what) { add(Kind::note, path, what); }
  void wrong(const std::string& path, std::string_view what) { add(Kind::wrong, path, what); }

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

  std::vector<ConfigFinding> all() && { return std::move(_findings); }

 private:
  // Failures of reading name the file already.
  void add(Kind kind, const std::string& path, std::string_view what) {
    const std::string prefix = path + ": ";
    if (what.starts_with(prefix)) what.remove_prefix(prefix.size());
    _findings.push_back({kind, prefix + std::string(what)});
  }

  std::vector<ConfigFinding> _findings;
};

void checkSandboxProfile(const Paths& paths, Findings& found) {
  const std::string path = paths.sandboxProfile(kCorvidServiceName);
  const auto deployment = readDeployment(paths.deploymentFile);
  const auto profile = SandboxProfile::named(kCorvidServiceName, paths,
                                             deployment ? deployment.value() : Deployment());
  if (profile)
    found.right(path, "a sandbox profile");
  else
    found.wrong(path, profile.failure().message +
                          ", so the daemon does not start; install the daemon's own profile");
}

void checkCAFile(const std::string& path, Findings& found) {
  const Result<std::string> content = readRegularFile(path);
  if (!content)
    found.wrong(path, content.failure().message + ", so no server is trusted; correct CAFile");
  else if (content.value().find("-----BEGIN CERTIFICATE-----") == std::string::npos)
    found.wrong(path, "no certificate in PEM form, so no server is trusted; correct CAFile");
  else
    found.right(path, "certificates to trust");
}

void checkDeployment(const Paths& paths, Findings& found) {
  const std::string& path = paths.deploymentFile;
  const auto settings = found.usable(path, readDeployment(path), Kind::note,
                                     "missing: no storebag server is reached");
  if (!settings) return;
  for (const std::string& setting : settings->passedOver)
    found.wrong(path,
                fmt::format("\"{}\" is of the wrong type and is passed over; correct it", setting));
  found.right(path, fmt::format("storebags come from {}, on internal builds from {}",
                                settings->productionStorebagHost, settings->internalStorebagHost));
  if (settings->allowInsecureHTTP)
    found.note(path, "AllowInsecureHTTP lets plain http through; for tests only");
  if (const auto ports = reachableTCPPorts(*settings))
    found.note(path, fmt::format("TCPPorts: servers are reached at the ports {} only",
                                 fmt::join(*ports, ", ")));
  if (settings->caFile) checkCAFile(*settings->caFile, found);
}

void checkPublicKey(const Paths& paths, Findings& found) {
  const Result<std::string> content = readRegularFile(paths.publicKeyFile, publicKeyLimit);
  if (!content) {
    found.wrong(paths.publicKeyFile,
                content.failure().message + "; install the key that the storebags are signed with");
  } else if (const auto key = RSAPublicKey::fromDER(content.value());
             !key && key.failure().code == EKEYREJECTED) {
    found.wrong(paths.publicKeyFile,
                key.failure().message + "; make a new pair with openssl genrsa 3072");
  } else if (!key) {
    found.wrong(paths.publicKeyFile,
                "no RSA public key in DER form; convert it with openssl rsa -outform DER");
  } else {
    found.right(paths.publicKeyFile, "an RSA public key");
  }
}

void checkInfo(const Paths& paths, Findings& found) {
  const std::string& path = paths.infoFile;
  LocalFileSystem files;
  auto read = bundleVersion(files, path);
  if (!read && read.failure().code == EFBIG)
    return found.wrong(path, fmt::format("longer than {} bytes, so the version is 8.0; shorten it",
                                         infoFileLimit));
  const auto version =
      found.usable(path, std::move(read), Kind::note, "missing: the version is 8.0");
  if (!version) return;
  if (*version)
    found.right(path, "version " + **version);
  else
    found.wrong(path, "no text under BundleVersion, so the version is 8.0; add one");
}

// Whether the file can entitle anybody to connect.
bool checkEntitlementFile(const std::string& path, Findings& found) {
  const auto file =
      found.usable(path, readEntitlementFile(path), Kind::wrong, "gone while it was read");
  if (!file) return false;
  if (!file->fault.empty()) {
    found.wrong(path, file->fault);
    return false;
  }
  const Value* granted = file->entitlements.find("com.halcyon.private.corvidd");
  if (!granted) {
    found.note(path, "says nothing of com.halcyon.private.corvidd");
    return false;
  }
  if (!granted->boolean()) {
    found.wrong(
        path,
        "com.halcyon.private.corvidd is no boolean, which counts as false; write true or false");
    return false;
  }
  found.right(path,
              *granted->boolean() ? "lets those connect who match" : "refuses those who match");
  return *granted->boolean();
}

void checkEntitlements(const Paths& paths, Findings& found) {
  const auto files = propertyListsIn(paths.entitlementsFolder);
  if (!files && files.failure().code != ENOENT)
    return found.wrong(paths.entitlementsFolder,
                       files.failure().message + "; let the daemon's user read it");
  bool anybody = false;
  for (const std::string& path : files ? files.value() : std::vector<std::string>())
    anybody |= checkEntitlementFile(path, found);
  if (!anybody)
    found.wrong(
        paths.entitlementsFolder,
        "entitles nobody to com.halcyon.private.corvidd, so every client is refused; add a property list");
}

void checkDevice(const Paths& paths, Findings& found) {
  const std::string& path = paths.deviceFile;
  const auto device = found.usable(path, readDeviceAnswers(path), Kind::note,
                                   "missing: the machine answers, and is no internal build");
  if (!device) return;
  if (device->passedOver.empty())
    found.right(path, fmt::format("answers for {} keys", device->answers.size()));
  else
    found.wrong(path, fmt::format("\"{}\" is no text and is passed over; write it as one",
                                  device->passedOver.front()));
}

void checkPreferences(const Paths& paths, Findings& found) {
  const std::string& folder = paths.preferencesFolder;
  const auto files = propertyListsIn(folder);
  if (!files && files.failure().code == ENOENT)
    return found.note(folder, "missing: made when the first preference is set");
  if (!files)
    return found.wrong(folder, files.failure().message + "; give it to the daemon's user");
  for (const std::string& path : files.value())
    if (const auto suite =
            found.usable(path, readDictionaryFile(path), Kind::note, "gone while it was read"))
      found.right(path, fmt::format("{} preferences", suite->size()));
}

}  // namespace

std::vector<ConfigFinding> checkConfig(const Paths& paths) {
  Findings found;
  for (const auto check : {checkSandboxProfile, checkDeployment, checkPublicKey, checkInfo,
                           checkEntitlements, checkDevice, checkPreferences})
    check(paths, found);
  return std::move(found).all();
}

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
