// The daemon's services for somebody who only looks.
#pragma once

#include "platform/Paths.h"
#include "platform/Platform.h"
#include "platform/Preferences.h"

namespace corvid {

// Preferences as they stand in their files. Nothing is changed, nor set aside where it is damaged;
// such a suite is empty. Any thread.
class SeenPreferences final : public Preferences {
 public:
  explicit SeenPreferences(std::string folder) : _folder(std::move(folder)) {}

  std::optional<Value> value(std::string_view suite, std::string_view key) override;
  bool setValue(std::string_view, std::string_view, Value) override { return false; }
  bool removeValue(std::string_view, std::string_view) override { return false; }
  std::vector<std::string> keys(std::string_view suite) override;

 private:
  Dictionary entries(std::string_view suite) const;

  const std::string _folder;
};

// Installed as long as it is there: device answers, preferences, files and the HTTP client, as the
// daemon would have them. The other services are missing.
class LookingPlatform {
 public:
  explicit LookingPlatform(const Paths& paths);
  ~LookingPlatform();
  LookingPlatform(const LookingPlatform&) = delete;
  LookingPlatform& operator=(const LookingPlatform&) = delete;

 private:
  Platform _platform;
};

}  // namespace corvid
