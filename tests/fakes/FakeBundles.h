// A bundle that a test fills with classes, and what its objects were asked to do.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "platform/BundleLoader.h"

namespace corvid {

struct PerformedOperation {
  std::string operation;
  std::uint16_t method = 0;
  std::uint16_t respCode = 0;
  std::optional<Dictionary> payload;
};

// One thread.
class FakeBundle final : public Bundle {
 public:
  class Class final : public BundleClass {
   public:
    std::unique_ptr<BundleObject> create() const override {
      ++created;
      return makes ? std::make_unique<Object>(*this) : nullptr;
    }
    bool makes = true;
    std::set<std::string, std::less<>> operations;
    std::function<void()> whilePerforming;  // may be empty
    mutable int created = 0;
    mutable int alive = 0;
    mutable std::vector<PerformedOperation> performed;
  };

  const BundleClass* classNamed(std::string_view name) const override {
    const auto found = classes.find(name);
    return found == classes.end() ? nullptr : &found->second;
  }

  std::map<std::string, Class, std::less<>> classes;

 private:
  class Object final : public BundleObject {
   public:
    explicit Object(const Class& type) : _class(type) { ++_class.alive; }
    ~Object() override { --_class.alive; }
    bool respondsTo(std::string_view operation) override {
      return _class.operations.contains(operation);
    }
    void perform(std::string_view operation, std::uint16_t method, std::uint16_t respCode,
                 const Dictionary* payload) override {
      _class.performed.push_back({std::string(operation), method, respCode,
                                  payload ? std::optional(*payload) : std::nullopt});
      if (_class.whilePerforming) _class.whilePerforming();
    }
    std::string description() const override { return "<fake adaptor>"; }

   private:
    const Class& _class;
  };
};

class FakeBundleLoader final : public BundleLoader {
 public:
  std::shared_ptr<const Bundle> performanceBundle() override {
    ++asked;
    return bundle;
  }
  std::shared_ptr<FakeBundle> bundle;  // none at first
  int asked = 0;
};

}  // namespace corvid
