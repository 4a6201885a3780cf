#include "platform/data/Deployment.h"

#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

class Settings {
 public:
  Settings(const Dictionary& values, std::vector<std::string>& passedOver)
      : _values(values), _passedOver(passedOver) {}

  void takeText(std::string_view key, auto& into) {
    const Value* value = find(key, Value::Type::string);
    if (value && !value->string()->empty()) into = *value->string();
  }
  // Nothing but a plain yes lowers a guard.
  void takeBoolean(std::string_view key, bool& into) {
    if (const Value* value = find(key, Value::Type::boolean)) into = *value->boolean();
  }

 private:
  const Value* find(std::string_view key, Value::Type type) {
    const Value* value = _values.find(key);
    if (!value || value->type() == type) return value;
    _passedOver.emplace_back(key);
    return nullptr;
  }

  const Dictionary& _values;
  std::vector<std::string>& _passedOver;
};

}  // namespace

Result<Deployment> readDeployment(const std::string& path) {
  const Result<Dictionary> values = readDictionaryFile(path);
  if (!values) return values.failure();
  Deployment deployment;
  Settings settings(values.value(), deployment.passedOver);
  settings.takeText("ProductionStorebagHost", deployment.productionStorebagHost);
  settings.takeText("InternalStorebagHost", deployment.internalStorebagHost);
  settings.takeText("CAFile", deployment.caFile);
  settings.takeBoolean("AllowInsecureHTTP", deployment.allowInsecureHTTP);
  return deployment;
}

}  // namespace corvid
