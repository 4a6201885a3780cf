#include "config/KeptStorebags.h"

#include <fmt/format.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string_view>
#include <utility>

#include "base/Log.h"
#include "base/Reading.h"
#include "config/Environment.h"
#include "config/PublicKeys.h"
#include "config/StorebagEnvelope.h"
#include "config/StorebagSerials.h"
#include "platform/Platform.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

// The largest envelope that is opened, and what stands beside it.
constexpr std::size_t keptFileLimit = PropertyListLimits().bytes + (std::size_t{64} << 10);

bool areKept() { return Platform::current().deployment()->keepStorebags; }

std::string keptFile(const std::string& name) {
  return fmt::format("{}/{}.plist", Platform::current().paths().storebagsFolder, name);
}

Result<Dictionary> readKept(const std::string& path) {
  const Result<std::string> content = readRegularFile(path, keptFileLimit);
  if (!content) return content.failure();
  PropertyListLimits limits;
  limits.bytes = keptFileLimit;
  return parseDictionary(content.value(), limits);
}

// As they stand in the file; nothing where one of them lacks.
struct KeptFields {
  const std::string* envelope;
  const std::string* url;
  double fetchTime;
  std::int32_t maxAge;
};
std::optional<KeptFields> fieldsOf(const Dictionary& file) {
  const Value* const envelope = file.find("envelope");
  const Value* const time = file.find("fetchTime");
  const std::string* const url = stringAt(file, "url");
  const auto maxAge = integerAt(file, "maxAge");
  using Seconds = std::numeric_limits<std::int32_t>;
  const auto fetchTime = time ? time->date() : std::nullopt;
  if (!envelope || !envelope->data() || !fetchTime || !std::isfinite(fetchTime->secondsSince1970) ||
      !url || !maxAge || *maxAge < Seconds::min() || *maxAge > Seconds::max())
    return std::nullopt;
  return KeptFields{envelope->data(), url, fetchTime->secondsSince1970,
                    static_cast<std::int32_t>(*maxAge)};
}

void setAside(const std::string& path, std::string_view why) {
  const std::string aside = path + ".damaged";
  if (std::rename(path.c_str(), aside.c_str()) == 0)
    logError("keptStorebag: {}: {}; it is set aside as {}, and the server is asked", path, why,
             aside);
  else
    logError("keptStorebag: {}: {}; it is not used, and the server is asked", path, why);
}

void write(const std::string& name, const Dictionary& file) {
  const std::string path = keptFile(name);
  LocalFileSystem().createDirectories(Platform::current().paths().storebagsFolder);
  if (const auto failure = replaceRegularFile(path, writeBinaryPropertyList(file)))
    logError("keepStorebag: {} is not kept, so the next start asks for it anew: {}", name,
             failure->message);
}

// True where the device has seen a younger one, which removes the file.
bool isTooOld(const std::string& name, const Dictionary& whole) {
  if (!Platform::current().deployment()->refuseOlderStorebags) return false;
  const std::int64_t highest = highestSerialSeen(name);
  if (serialOf(whole) >= highest) return false;
  const std::string path = keptFile(name);
  std::remove(path.c_str());
  logError("keptStorebag: {}: its serial {} is below {}; it is removed, and the server is asked",
           path, serialOf(whole), highest);
  return true;
}

// Nothing where it is passed over or set aside.
std::optional<Dictionary> wholeStorebag(const std::string& name, const KeptFields& kept,
                                        std::optional<std::uint64_t>& key) {
  Platform& platform = Platform::current();
  const OpenedEnvelope opened =
      openEnvelope(*kept.envelope, readPublicKeys(platform.files(), platform.paths()).usable,
                   rulesOfDeployment());
  if (!opened.storebag) {
    setAside(keptFile(name), opened.lack);
    return std::nullopt;
  }
  if (isTooOld(name, *opened.storebag)) return std::nullopt;
  key = opened.key;
  return opened.storebag;
}

}  // namespace

std::optional<KeptStorebag> keptStorebag(std::int32_t clientType) {
  const auto name = storebagNameForClientType(clientType);
  if (!areKept() || !name) return std::nullopt;
  const Result<Dictionary> file = readKept(keptFile(*name));
  if (!file) {
    if (file.failure().code != ENOENT) {
      const std::string path = keptFile(*name);
      setAside(path, whatFailed(file.failure(), path));
    }
    return std::nullopt;
  }
  const auto fields = fieldsOf(file.value());
  if (!fields) {
    setAside(keptFile(*name), "it is no kept storebag");
    return std::nullopt;
  }
  if (*fields->url != storebagURL(name)) return std::nullopt;
  KeptStorebag kept;
  kept.fetchTime = fields->fetchTime;
  const auto whole = wholeStorebag(*name, *fields, kept.fetched.key);
  const Dictionary* const section =
      whole ? sectionForEnvironment(*whole, currentEnvironment()) : nullptr;
  const std::string* const version = whole ? stringAt(*whole, "version") : nullptr;
  if (!section || !version) return std::nullopt;
  kept.fetched.storebag = *section;
  kept.fetched.version = *version;
  kept.fetched.maxAge = fields->maxAge;
  kept.fetched.url = *fields->url;
  if (const std::string* const modified = stringAt(file.value(), "lastModified"))
    kept.fetched.lastModified = *modified;
  return kept;
}

void keepStorebag(const std::string& name, const FetchedStorebag& fetched, double fetchTime) {
  if (!areKept()) return;
  if (fetched.notModified) {
    Result<Dictionary> file = readKept(keptFile(name));
    if (!file || !fieldsOf(file.value())) return;
    file.value().set("fetchTime", Date{fetchTime});
    file.value().set("maxAge", fetched.maxAge);
    return write(name, file.value());
  }
  if (fetched.envelope.empty()) return;
  Dictionary file{{"envelope", Data{fetched.envelope}},
                  {"url", fetched.url},
                  {"fetchTime", Date{fetchTime}},
                  {"maxAge", fetched.maxAge}};
  if (fetched.lastModified) file.set("lastModified", *fetched.lastModified);
  write(name, file);
}

}  // namespace corvid
