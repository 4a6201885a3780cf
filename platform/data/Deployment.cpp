#include "platform/data/Deployment.h"

#include "platform/data/PropertyList.h"

namespace corvid {

Result<Deployment> readDeployment(const std::string& path) {
  const Result<Dictionary> values = readDictionaryFile(path);
  if (!values) return values.failure();
  Deployment deployment;
  const auto find = [&](std::string_view key, Value::Type type) -> const Value* {
    const Value* value = values.value().find(key);
    if (!value || value->type() == type) return value;
    deployment.passedOver.emplace_back(key);
    return nullptr;
  };
  const auto takeText = [&](std::string_view key, auto& into) {
    const Value* value = find(key, Value::Type::string);
    if (value && !value->string()->empty()) into = *value->string();
  };
  takeText("ProductionStorebagHost", deployment.productionStorebagHost);
  takeText("InternalStorebagHost", deployment.internalStorebagHost);
  takeText("CAFile", deployment.caFile);
  const auto takeFlag = [&](std::string_view key, bool& into) {
    if (const Value* value = find(key, Value::Type::boolean)) into = *value->boolean();
  };
  // Nothing but a plain yes lowers a guard.
  takeFlag("AllowInsecureHTTP", deployment.allowInsecureHTTP);
  takeFlag("ConsentIsLive", deployment.consentIsLive);
  return deployment;
}

}  // namespace corvid
