#include "platform/system/SettingsFile.h"

#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"

namespace corvid {

Result<std::string> readSettingsFile(const std::string& path) {
  return LocalFileSystem().readFile(path, PropertyListLimits().bytes);
}

Result<Dictionary> readDictionaryFile(const std::string& path) {
  const Result<std::string> content = readSettingsFile(path);
  if (!content) return content.failure();
  const Result<Value> value = parsePropertyList(content.value());
  if (!value) return Failure{path + ": " + value.failure().message};
  if (const Dictionary* dictionary = value.value().dictionary()) return *dictionary;
  return Failure{path + ": not a dictionary"};
}

}  // namespace corvid
