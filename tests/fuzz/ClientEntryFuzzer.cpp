// A storebag's client list, with the user info and the event that meet it. A property list with the
// dictionaries "profile", "userInfo" and "event"; missing ones are empty.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "backends/https/HTTPSPostBackend.h"
#include "base/Reading.h"
#include "platform/data/PropertyList.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"

namespace {

using corvid::BackendState;
using corvid::Dictionary;

Dictionary dictionaryOrEmpty(const Dictionary& input, std::string_view key) {
  const Dictionary* found = corvid::dictionaryAt(input, key);
  return found ? *found : Dictionary();
}

// Filters take keys away and never add any.
void checkFilters(const corvid::HTTPSPostBackend& backend, const Dictionary& event) {
  Dictionary filtered = event;
  backend.filterEvent(filtered);
  for (const auto& [key, value] : filtered)
    if (!event.contains(key)) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto list =
      corvid::parsePropertyList(std::string_view(reinterpret_cast<const char*>(data), size));
  const Dictionary* input = list ? list.value().dictionary() : nullptr;
  if (input == nullptr) return 0;
  corvid::TestPlatform platform;
  const Dictionary profile = dictionaryOrEmpty(*input, "profile");
  const Dictionary event = dictionaryOrEmpty(*input, "event");
  corvid::BackendIdentity identity{.hardwareType = "Robin5,2", .productFamily = "Robin"};
  const auto open =
      corvid::HTTPSPostBackend::initWithName("httpPost", &profile, corvid::shared(identity));
  if (open == nullptr) return 0;
  open->updateState();
  if (open->state() != BackendState::sending) std::abort();  // it requires no user info
  identity.requireUserInfo = true;
  const auto backend =
      corvid::HTTPSPostBackend::initWithName("httpPost", &profile, corvid::shared(identity));
  if (backend->updateBackendState() != BackendState::waiting) std::abort();
  backend->setUserInfoDict(corvid::shared(dictionaryOrEmpty(*input, "userInfo")));
  backend->updateState();
  checkFilters(*backend, event);
  for (const int flag : {0, 1, 2, 3})
    backend->sendMessage(&event, platform.clock->now(), 3, 1, corvid::MessageFlag{flag});
  backend->flushMessagesWithCompletion(nullptr);
  if (backend->state() == BackendState::disabled && !platform.http->requests().empty())
    std::abort();
  return 0;
}
