#include "tools/lab/LabRoot.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "platform/Paths.h"
#include "platform/data/PropertyList.h"

namespace corvid::lab {

namespace {

namespace fs = std::filesystem;

// The daemon's sandbox profile as it stood when this program was built.
constexpr std::string_view sandboxProfile =
#include "SandboxProfile.inc"
    ;

// Lets every country code pass: an entry's list is searched for items that occur inside the code.
Array everyLetter() {
  Array letters;
  for (char letter = 'A'; letter <= 'Z'; ++letter) letters.push_back(Value(std::string(1, letter)));
  return letters;
}

// Every client may report, in batches of up to 50 of a method, realtime events at once.
Dictionary sampleSection() {
  const Dictionary entry{{"post_url", "${events}"},
                         {"realtime_post_url", "${realtime}"},
                         {"expedite", 0},
                         {"event_threshold", 49},
                         {"override_dnu", 1},
                         {"locale_whitelist", everyLetter()},
                         {"filters", Array{Dictionary{{"key", "secret"}, {"action", "remove"}},
                                           Dictionary{{"key", "account"}, {"action", "sha256"}}}},
                         {"sampling_threshold", 1.0}};
  return {{"httpPost", Dictionary{{"display_url", "${events}"}, {"clients", Array{entry}}}}};
}

// Packets that want acknowledgements, and a place for log data.
Dictionary sampleDashboard() {
  return {{"ip", "127.0.0.1"},
          {"port", "${dashboardPort}"},
          {"post_url", "${logData}"},
          {"reliable", 500}};
}

Dictionary sampleUploadServer() {
  return {{"post_url", "${upload}"}, {"display_url", "${upload}"}};
}

// Not every storebag has every backend, so that most sessions have a single one.
Dictionary sampleStorebag(const std::string& name) {
  Dictionary storebag{{"version", "1.0.0-" + name}, {"refresh_cycle", 3600}};
  for (const char* environment : {"development", "halcyon_internal", "seed", "release"}) {
    Dictionary section = sampleSection();
    if (name == "reel") section.set("dashboard", sampleDashboard());
    if (name == "folio") section.set("uploadServer", sampleUploadServer());
    if (name == "parlor") section.set("metrix", Dictionary{{"active", true}});
    storebag.set(environment, std::move(section));
  }
  return storebag;
}

void write(const std::string& path, std::string_view bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << bytes << std::flush;
  if (!file) throw std::runtime_error("cannot write " + path);
}

void writeIfMissing(const std::string& path, const Dictionary& list) {
  if (!fs::exists(path)) write(path, writeXMLPropertyList(list));
}

}  // namespace

LabRoot::LabRoot(std::string root)
    : _root(fs::absolute(std::move(root)).lexically_normal().string()) {
  const Paths paths(_root);
  for (const std::string& folder :
       {tlsFolder(), storebagFolder(), paths.entitlementsFolder, paths.sandboxFolder,
        paths.preferencesFolder, fs::path(paths.socket).parent_path().string()}) {
    std::error_code error;
    fs::create_directories(folder, error);
    if (error)
      throw std::runtime_error("cannot make the folder " + folder + ": " + error.message());
  }
  const std::string folder = _root + "/lab";
  _lock = Descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!_lock || flock(_lock.get(), LOCK_EX | LOCK_NB) != 0)
    throw std::runtime_error(errno == EWOULDBLOCK
                                 ? "another lab serves " + _root
                                 : "cannot lock " + folder + ": " + std::strerror(errno));
}

void LabRoot::writeFiles(const std::string& publicKeyDER) const {
  const Paths paths(_root);
  write(paths.publicKeyFile, publicKeyDER);
  writeIfMissing(paths.infoFile, {{"BundleVersion", "8.1"}});
  write(paths.sandboxFolder + "/com.halcyon.corvidd.plist", sandboxProfile);
  writeIfMissing(paths.entitlementsFolder + "/lab.plist",
                 {{"match", Dictionary{{"user", fmt::format("{}", getuid())}}},
                  {"entitlements", Dictionary{{"com.halcyon.private.corvidd", true}}}});
  // Below the root there is nothing else that could answer, and every machine's lab is the same.
  writeIfMissing(paths.deviceFile, {{"DeviceName", "Workbench"},
                                    {"ProductType", "Workbench1,1"},
                                    {"HWModelStr", "W11"},
                                    {"ProductVersion", "1.0"}});
  for (const char* name :
       {"lumen", "tessel", "parlor", "orrery", "cadence", "quill", "ledger", "folio", "reel"})
    writeIfMissing(fmt::format("{}/{}.plist", storebagFolder(), name), sampleStorebag(name));
}

void LabRoot::writeDeployment(std::uint16_t storebagPort, const std::string& caFile) const {
  const std::string host = fmt::format("localhost:{}", storebagPort);
  const Dictionary deployment{
      {"ProductionStorebagHost", host}, {"InternalStorebagHost", host}, {"CAFile", caFile}};
  write(Paths(_root).deploymentFile, writeXMLPropertyList(deployment));
}

}  // namespace corvid::lab
