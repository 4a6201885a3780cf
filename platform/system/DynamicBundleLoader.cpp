#include "platform/system/DynamicBundleLoader.h"

#include <dlfcn.h>
#include <fmt/format.h>

#include <exception>
#include <optional>
#include <utility>
#include <vector>

#include "base/Log.h"
#include "base/Result.h"
#include "include/corvid/bundle.h"
#include "platform/data/PropertyList.h"

namespace corvid {

namespace {

constexpr std::size_t mostClasses = 1024;

// Calls the bundle's code; nothing, and a line in the log, where it throws.
template <class Call>
auto guarded(std::string_view what, const Call& call) -> std::optional<decltype(call())> {
  try {
    return call();
  } catch (const std::exception& error) {
    logError("Bundle: {} threw: {}", what, error.what());
  } catch (...) {
    logError("Bundle: {} threw", what);
  }
  return std::nullopt;
}

class DynamicObject final : public BundleObject {
 public:
  DynamicObject(const corvid_bundle_class_t& type, void* object) : _class(type), _object(object) {}
  ~DynamicObject() override {
    guarded("destroy", [&] { return _class.destroy(_object), true; });
  }

  bool respondsTo(std::string_view operation) override {
    const std::string name(operation);
    return guarded("responds_to", [&] { return _class.responds_to(_object, name.c_str()) != 0; })
        .value_or(false);
  }

  void perform(std::string_view operation, std::uint16_t method, std::uint16_t respCode,
               const Dictionary* payload) override {
    const std::string name(operation);
    const std::string list = payload ? writeBinaryPropertyList(*payload) : std::string();
    guarded(name, [&] {
      _class.perform(_object, name.c_str(), method, respCode, payload ? list.data() : nullptr,
                     list.size());
      return true;
    });
  }

  std::string description() const override { return fmt::format("<{}>", _class.name); }

 private:
  const corvid_bundle_class_t& _class;
  void* const _object;
};

class DynamicClass final : public BundleClass {
 public:
  explicit DynamicClass(const corvid_bundle_class_t& type) : _class(type) {}

  std::unique_ptr<BundleObject> create() const override {
    void* const object = guarded("create", [&] { return _class.create(); }).value_or(nullptr);
    return object ? std::make_unique<DynamicObject>(_class, object) : nullptr;
  }
  std::string_view name() const { return _class.name; }

 private:
  const corvid_bundle_class_t& _class;
};

class DynamicBundle final : public Bundle {
 public:
  explicit DynamicBundle(const corvid_bundle_t& table)
      : _classes(table.classes, table.classes + table.class_count) {}

  const BundleClass* classNamed(std::string_view name) const override {
    for (const DynamicClass& type : _classes)
      if (type.name() == name) return &type;
    return nullptr;
  }

 private:
  const std::vector<DynamicClass> _classes;
};

std::optional<std::string> faultOf(const corvid_bundle_t& table) {
  if (table.version != CORVID_BUNDLE_VERSION)
    return fmt::format("it is made for version {} of the interface, this is {}", table.version,
                       CORVID_BUNDLE_VERSION);
  if (table.class_count > mostClasses || (table.class_count > 0 && table.classes == nullptr))
    return "its table of classes cannot be used";
  for (std::size_t i = 0; i < table.class_count; ++i) {
    const corvid_bundle_class_t& type = table.classes[i];
    if (!type.name || !type.create || !type.destroy || !type.responds_to || !type.perform)
      return fmt::format("its class {} lacks a name or a function", i);
  }
  return std::nullopt;
}

Result<std::shared_ptr<const Bundle>> load(const std::string& path) {
  // Never closed: classes and objects refer to it.
  void* const library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) return Failure{dlerror()};
  const auto* table = static_cast<const corvid_bundle_t*>(dlsym(library, "corvid_bundle"));
  if (table == nullptr) return Failure{dlerror()};
  if (auto fault = faultOf(*table)) return Failure{std::move(*fault)};
  return std::shared_ptr<const Bundle>(std::make_shared<DynamicBundle>(*table));
}

}  // namespace

Result<std::shared_ptr<const Bundle>> loadBundle(const std::string& path) {
  try {
    return load(path);
  } catch (const std::exception& error) {
    return Failure{fmt::format("it threw: {}", error.what())};
  } catch (...) {
    return Failure{"it threw"};
  }
}

bool DynamicBundleLoader::isTheOneTried() {
  const FileStamp present = FileStamp::of(_path);
  if (_tried && present.isSameContent(*_tried)) return true;
  if (present.error == 0 && !(_passedOver && present.isSameContent(*_passedOver)))
    logWarning(
        "Bundle: {} is not the one that was tried at the start; start corvidd anew to use it",
        _path);
  _passedOver = present;
  return false;
}

std::shared_ptr<const Bundle> DynamicBundleLoader::performanceBundle() {
  MutexLock lock(_mutex);
  if (_bundle || !isTheOneTried()) return _bundle;
  auto loaded = loadBundle(_path);
  if (loaded)
    _bundle = std::move(loaded).value();
  else
    logError("Bundle: cannot use {}: {}", _path, loaded.failure().message);
  return _bundle;
}

}  // namespace corvid
