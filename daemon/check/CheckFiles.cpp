// The files that each deployment writes by hand.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <cerrno>

#include "base/Reading.h"
#include "config/DeviceInformation.h"
#include "daemon/check/Inspection.h"
#include "platform/data/Deployment.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/system/SystemDeviceInformation.h"

namespace corvid {

namespace {

void checkCAFile(const std::string& path, Inspection& it) {
  const auto fault = faultOfCAFile(path);
  if (!fault) return it.found.right(path, "certificates to trust");
  if (fault->code == EACCES) return it.reportUnreadable(path);
  it.found.wrong(path, fault->message + ", so no server is trusted; correct CAFile");
}

}  // namespace

void checkDeployment(Inspection& it) {
  const std::string& path = it.paths.deploymentFile;
  const auto settings = it.usable(path, readDeployment(path), Findings::Kind::note,
                                  "missing: no storebag server is reached");
  if (!settings) return;
  for (const SettingFault& fault : settings->faults) it.reportFault(path, fault);
  const auto hosts = fmt::format("storebags come from {}, on internal builds from {}",
                                 settings->productionStorebagHost, settings->internalStorebagHost);
  if (settings->productionStorebagHost == Deployment().productionStorebagHost)
    it.found.note(path,
                  hosts + ": names no ProductionStorebagHost, and that one cannot be reached");
  else
    it.found.right(path, hosts);
  if (settings->allowInsecureHTTP)
    it.found.note(path, "AllowInsecureHTTP lets plain http through; for tests only");
  if (const auto ports = reachableTCPPorts(*settings))
    it.found.note(path, fmt::format("TCPPorts: servers are reached at the ports {} only",
                                    fmt::join(*ports, ", ")));
  if (!settings->messageLog) it.found.note(path, "MessageLog: the message log is not written");
  if (settings->caFile && settings->caFile->starts_with('/')) checkCAFile(*settings->caFile, it);
}

void checkInfo(Inspection& it) {
  const std::string& path = it.paths.infoFile;
  LocalFileSystem files;
  auto read = bundleVersion(files, path);
  if (!read && read.failure().code == EFBIG)
    return it.found.wrong(
        path,
        fmt::format("longer than {} bytes, so the version is 8.0; shorten it", infoFileLimit));
  const auto version =
      it.usable(path, std::move(read), Findings::Kind::note, "missing: the version is 8.0");
  if (!version) return;
  if (*version)
    it.found.right(path, "version " + **version);
  else
    it.found.wrong(path, "no text under BundleVersion, so the version is 8.0; add one");
}

void checkDevice(Inspection& it) {
  const std::string& path = it.paths.deviceFile;
  const auto device = it.usable(path, readDeviceAnswers(path), Findings::Kind::note,
                                "missing: the machine answers, and is no internal build");
  if (!device) return;
  const std::string* const identifier = stringAt(device->answers, "UniqueDeviceID");
  if (identifier && identifier->size() > mostDeviceIDBytes)
    return it.found.wrong(
        path, fmt::format("\"UniqueDeviceID\" has more than {} bytes, and counts as none",
                          mostDeviceIDBytes));
  if (device->faults.empty())
    return it.found.right(path, fmt::format("answers for {} keys", device->answers.size()));
  for (const SettingFault& fault : device->faults) it.reportFault(path, fault);
}

}  // namespace corvid
