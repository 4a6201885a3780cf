#include "tests/e2e/LabFixture.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <set>
#include <utility>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tests/e2e/Operator.h"
#include "tests/support/Waiting.h"

namespace corvid {

void LabFixture::TearDown() {
  if (!_daemon || !_daemon->isRunning()) return;
  const Operator watching(_root.path());
  const ToolResult status = watching.ctl({"status", "--json"});
  ASSERT_EQ(status.status, 0) << status.errors << _daemon->standardError();
  EXPECT_TRUE(Operator::adds(*dictionaryAt(Operator::objectIn(status.output), "ledger")))
      << status.output;
}

void LabFixture::startDaemon(std::vector<std::string> arguments) {
  arguments.insert(arguments.end(), {"--log", "stderr", "--log-level", "debug"});
  _daemon.emplace(_root, std::move(arguments));
  ASSERT_TRUE(_daemon->waitUntilReady()) << _daemon->standardError();
}

std::size_t LabFixture::timesLogged(std::string_view fragment) const {
  return _daemon->timesLogged(fragment);
}

std::string LabFixture::urlOf(std::string_view server) const {
  return *stringAt(_lab.addresses(), server);
}

void LabFixture::plan(const std::string& server, Dictionary fault) {
  fault.set("server", server);
  _lab.faults().set(fault);
}

void LabFixture::publish(const std::string& name, const Dictionary& storebag) const {
  _root.write("lab/storebags/" + name + ".plist", writeXMLPropertyList(Value(storebag)));
}

Dictionary LabFixture::storebagPostingTo(const std::string& url, const Dictionary& more) {
  Dictionary entry{{"post_url", url}, {"expedite", 1}};
  entry.addEntriesFrom(more);
  return {{"version", "7"},
          {"refresh_cycle", 3600},
          {"release", Dictionary{{"httpPost", Dictionary{{"clients", Array{entry}}}}}}};
}

Dictionary LabFixture::admitsEverybody() {
  Array countries;  // each code holds one of these
  for (char letter = 'A'; letter <= 'Z'; ++letter) countries.emplace_back(std::string(1, letter));
  return {{"override_dnu", 1},
          {"locale_whitelist", countries},
          {"filters", Array{}},
          {"sampling_threshold", 1.0}};
}

Dictionary LabFixture::batchesForEverybody() {
  Dictionary entries = admitsEverybody();
  entries.set("expedite", 0);
  entries.set("event_threshold", 49);
  return entries;
}

const std::vector<Dictionary>& LabFixture::received() {
  std::ifstream file(_lab.root().receivedFile());
  file.seekg(static_cast<std::streamoff>(_bytesRead));
  for (std::string line; std::getline(file, line) && !file.eof();) {
    _bytesRead += line.size() + 1;
    const Result<Value> entry = parseJSON(line);
    if (entry && entry.value().dictionary()) _received.push_back(*entry.value().dictionary());
  }
  return _received;
}

std::vector<Dictionary> LabFixture::records() {
  std::vector<Dictionary> records;
  for (const Dictionary& entry : received())
    if (const Dictionary* message = dictionaryAt(entry, "message"))
      if (const Array* events = arrayAt(*message, "events"))
        for (const Value& event : *events) records.push_back(*event.dictionary());
  return records;
}

std::size_t LabFixture::arrivals(std::string_view mark) {
  const std::vector<Dictionary> all = records();
  return static_cast<std::size_t>(std::ranges::count_if(all, [&](const Dictionary& record) {
    const std::string* text = stringAt(record, "mark");
    return text != nullptr && *text == mark;
  }));
}

void LabFixture::admitBystander() {
  publish("tessel", storebagPostingTo(urlOf("realtime")));
  _bystander.emplace(_root.path());
  ASSERT_EQ(_bystander->configure({.clientType = 6}).text(), "httpPost");
  ASSERT_TRUE(bystanderReports());
}

std::string LabFixture::sendAsBystander() {
  return _bystander->send(fmt::format("bystander {}", ++_bystanderEvents)).text();
}

std::size_t LabFixture::bystandersMissing() {
  std::set<std::string> arrived;
  for (const Dictionary& record : records())
    if (const std::string* mark = stringAt(record, "mark"); mark && mark->starts_with("bystander "))
      arrived.insert(*mark);
  return static_cast<std::size_t>(_bystanderEvents) - arrived.size();
}

bool LabFixture::bystanderReports() {
  if (sendAsBystander() != "none") return false;
  const std::string mark = fmt::format("bystander {}", _bystanderEvents);
  return waitUntil([&] { return arrivals(mark) == 1; });
}

}  // namespace corvid
