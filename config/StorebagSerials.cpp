#include "config/StorebagSerials.h"

#include <cerrno>
#include <utility>

#include "base/Log.h"
#include "base/Reading.h"
#include "platform/Platform.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

std::string serialsFile() { return Platform::current().paths().storebagsFolder + "/serials.plist"; }

Dictionary serials() {
  Result<Dictionary> read = readDictionaryFile(serialsFile());
  if (read) return std::move(read).value();
  if (read.failure().code != ENOENT)
    logError("storebagSerials: {}; every serial is taken, and the file is written anew",
             read.failure().message);
  return {};
}

}  // namespace

std::int64_t serialOf(const Dictionary& storebag) {
  return integerAt(storebag, "serial").value_or(0);
}

std::int64_t highestSerialSeen(const std::string& name) {
  return integerAt(serials(), name).value_or(0);
}

void noteSerial(const std::string& name, std::int64_t serial) {
  Dictionary all = serials();
  if (serial <= integerAt(all, name).value_or(0)) return;
  all.set(name, serial);
  LocalFileSystem().createDirectories(Platform::current().paths().storebagsFolder);
  if (const auto failure = replaceRegularFile(serialsFile(), writeXMLPropertyList(all)))
    logError("storebagSerials: the serial {} of {} is not kept: {}", serial, name,
             failure->message);
}

}  // namespace corvid
