// A device that is nothing but its description.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "tools/storebag/policy/Facts.h"

namespace corvid::storebag {

// Exchanges that are begun and never end.
class UnansweredHTTPClient final : public HTTPClient {
 public:
  void start(HTTPRequest request, HTTPCompletion completion) override {
    _urls.push_back(std::move(request.url));
    _completions.push_back(std::move(completion));
  }
  std::size_t exchangesUnderWay() const override { return _urls.size(); }
  std::map<std::string, Load> loads() const override { return {}; }

  // Forgets their completions, uncalled.
  void abandon() { _completions.clear(); }
  // Where exchanges went, oldest first.
  const std::vector<std::string>& urls() const { return _urls; }

 private:
  std::vector<std::string> _urls;
  std::vector<HTTPCompletion> _completions;
};

// The process's Platform as long as it is there: it answers what the facts say, its clock stands
// still, it has no files, and whatever leaves it goes nowhere. One at a time, one thread.
class DescribedDevice {
 public:
  explicit DescribedDevice(const Facts& facts);
  ~DescribedDevice();
  DescribedDevice(const DescribedDevice&) = delete;
  DescribedDevice& operator=(const DescribedDevice&) = delete;

  Platform& platform() { return _platform; }
  UnansweredHTTPClient& http() const { return *_http; }

 private:
  const std::shared_ptr<UnansweredHTTPClient> _http = std::make_shared<UnansweredHTTPClient>();
  Platform _platform;
};

}  // namespace corvid::storebag
