// Code that comes as a bundle and publishes classes by name (include/corvid/bundle.h).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "base/Value.h"

namespace corvid {

// Threads: one at a time.
class BundleObject {
 public:
  virtual ~BundleObject() = default;
  virtual bool respondsTo(std::string_view operation) = 0;
  // Only what it responds to. `payload` may be null. Whatever the bundle's code throws is logged
  // and goes no further.
  virtual void perform(std::string_view operation, std::uint16_t method, std::uint16_t respCode,
                       const Dictionary* payload) = 0;
  // For the log.
  virtual std::string description() const = 0;
};

// Threads: any. Good as long as its bundle.
class BundleClass {
 public:
  virtual ~BundleClass() = default;
  // Nothing where the class makes none.
  virtual std::unique_ptr<BundleObject> create() const = 0;
};

// Threads: any.
class Bundle {
 public:
  virtual ~Bundle() = default;
  // Null where the bundle has no such class.
  virtual const BundleClass* classNamed(std::string_view name) const = 0;
};

// Threads: any.
class BundleLoader {
 public:
  virtual ~BundleLoader() = default;
  // The performance bundle, loaded by the first call. Nothing where there is none, or one that
  // cannot be used (logged).
  virtual std::shared_ptr<const Bundle> performanceBundle() = 0;
};

}  // namespace corvid
