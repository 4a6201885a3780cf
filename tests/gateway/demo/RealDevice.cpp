#include "tests/gateway/demo/RealDevice.h"

#include <stdexcept>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tests/support/ToolProcess.h"

namespace corvid::fleet {

namespace {

constexpr int clientType = 5;  // its storebag is "lumen"

void expect(const TestClient::Outcome& outcome, const std::string& text) {
  if (const std::string is = outcome.text(); is != text)
    throw std::runtime_error("the daemon answers \"" + is + "\", not \"" + text + "\"");
}

}  // namespace

void RealDevice::start(const std::string& collector) {
  const std::string file = "lab/storebags/lumen.plist";
  const std::string_view place = "${events}";
  std::string storebag = contentOf(_root.path(file));
  for (std::size_t at = 0; (at = storebag.find(place)) != storebag.npos;)
    storebag.replace(at, place.size(), collector);
  _root.write(file, storebag);
  _daemon.emplace(_root, std::vector<std::string>{"--log", "stderr"});
  if (!_daemon->waitUntilReady()) throw std::runtime_error(_daemon->standardError());
  _client.emplace(_root.path());
  expect(_client->configure({.clientType = clientType, .batches = true, .clientName = "Player"}),
         "httpPost");
}

void RealDevice::send(int events) {
  for (int i = 0; i < events; ++i) expect(_client->send("real"), "none");
  expect(_client->flush(), "flushed");
}

RealDevice::Account RealDevice::account() const {
  const ToolResult status =
      runTool(CORVIDCTL_PROGRAM, {"--root", _root.path(), "status", "--json"});
  const auto read = parseJSON(status.output);
  const Dictionary* const ledger = read && read.value().dictionary()
                                       ? dictionaryAt(*read.value().dictionary(), "ledger")
                                       : nullptr;
  if (!ledger) throw std::runtime_error("corvidctl status: " + status.errors);
  const auto count = [&](const char* name) {
    return static_cast<std::uint64_t>(integerAt(*ledger, name).value_or(0));
  };
  return {count("accepted"), count("delivered")};
}

}  // namespace corvid::fleet
