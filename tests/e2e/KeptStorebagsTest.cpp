// Storebags that outlast the daemon, from one process to the next, beside a server that is watched.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "base/Reading.h"
#include "platform/data/PropertyList.h"
#include "tests/e2e/LabFixture.h"
#include "tests/e2e/Operator.h"
#include "tests/support/SigningKeys.h"
#include "tools/lab/HTTPServer.h"
#include "tools/lab/StorebagSigner.h"
#include "tools/lab/TLSIdentity.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;
using lab::Answer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

class KeptStorebags : public LabFixture {
 protected:
  static constexpr const char* keptFile = "var/lib/corvidd/Storebags/lumen.plist";

  void SetUp() override {
    _root.write("var/lib/corvidd/Preferences/com.halcyon.corvid.plist",
                writeXMLPropertyList(Dictionary{{"corvid_storebag_url", _server.url("")}}));
    deploy("KeepStorebags", true);
    serve(signedStorebag("one", 1));
  }
  // Sets a key of the device's deployment.plist; null takes it away.
  void deploy(const std::string& key, Value value) {
    const std::string file = "etc/corvid/deployment.plist";
    Dictionary deployment = *parsePropertyList(contentOf(_root.path(file))).value().dictionary();
    if (value.isNull())
      deployment.erase(key);
    else
      deployment.set(key, std::move(value));
    _root.write(file, writeXMLPropertyList(deployment));
  }
  Answer signedStorebag(const std::string& version, int serial,
                        const std::string& keyName = "trusted") const {
    Dictionary storebag = storebagPostingTo(urlOf("events"));
    storebag.set("version", version);
    storebag.set("serial", serial);
    const lab::StorebagSigner signer(signingKeyFile(keyName));
    return {.headers = {{"Cache-Control", "max-age=3600"}, {"Last-Modified", "since " + version}},
            .body = signer.envelope(writeXMLPropertyList(storebag))};
  }
  void serve(Answer answer) {
    const std::lock_guard lock(_mutex);
    _answer = std::move(answer);
  }

  // A process from its start to its end, in which a client reports by the storebag: what the
  // device says of that. What servers saw and the log said is of this process alone.
  Dictionary runOnce() {
    {
      const std::lock_guard lock(_mutex);
      _asked.clear();
    }
    const std::size_t before = _daemon ? _daemon->standardError().size() : 0;
    startDaemon();
    Dictionary status;
    {
      TestClient client(_root.path());
      EXPECT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
      const std::string mark = "run " + std::to_string(++_runs);
      EXPECT_EQ(client.send(mark).text(), "none");
      EXPECT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << _daemon->standardError();
      status = Operator(_root.path()).status();
    }
    _daemon->signal(SIGTERM);
    EXPECT_EQ(_daemon->waitForExit(), 0);
    _log = _daemon->standardError().substr(before);
    return *arrayAt(status, "storebags")->at(0).dictionary();
  }
  // "If-Modified-Since" of each request for a storebag, empty where there was none.
  std::vector<std::string> asked() {
    const std::lock_guard lock(_mutex);
    std::vector<std::string> conditions;
    for (const lab::Request& request : _asked)
      conditions.push_back(request.header("If-Modified-Since").value_or(""));
    return conditions;
  }
  std::vector<lab::Request> requests() {
    const std::lock_guard lock(_mutex);
    return _asked;
  }
  // Lines of the process's log with this text.
  std::vector<std::string> lines(const std::string& text) const {
    std::vector<std::string> found;
    std::istringstream log(_log);
    for (std::string line; std::getline(log, line);)
      if (line.find(text) != std::string::npos) found.push_back(line);
    return found;
  }

  Dictionary kept() const {
    return *parsePropertyList(contentOf(_root.path(keptFile))).value().dictionary();
  }
  // As if the kept one had been fetched two hours ago.
  void growOld() const {
    Dictionary file = kept();
    file.set("fetchTime", Date{file.find("fetchTime")->date()->secondsSince1970 - 7200});
    _root.write(keptFile, writeBinaryPropertyList(file));
  }

  // The kept one is not used: its server is asked for the whole, and one line says why.
  void expectPassedOver(const std::string& why, const std::string& versionThen) {
    const Dictionary storebag = runOnce();
    EXPECT_THAT(asked(), ElementsAre(""));
    EXPECT_EQ(*storebag.find("version"), Value(versionThen));
    EXPECT_THAT(lines("keptStorebag: "), ElementsAre(HasSubstr(why))) << _log;
    EXPECT_EQ(runOnce().find("version")->string()->compare(versionThen), 0);
    EXPECT_THAT(asked(), IsEmpty()) << "the one that was fetched is kept";
    EXPECT_THAT(lines("keptStorebag: "), IsEmpty()) << "it is said once";
  }

  std::string _log;

 private:
  std::mutex _mutex;
  Answer _answer;
  std::vector<lab::Request> _asked;
  int _runs = 0;

 protected:
  lab::HTTPServer _server{[this](const lab::Request& request) {
                            const std::lock_guard lock(_mutex);
                            _asked.push_back(request);
                            return _answer;
                          },
                          {lab::TLSIdentity(_lab.root().tlsFolder()).server()}};
};

TEST_F(KeptStorebags, InsideTheAgeARestartMakesNoRequest) {
  EXPECT_EQ(*runOnce().find("version"), Value("one"));
  EXPECT_THAT(asked(), ElementsAre(""));
  const Dictionary storebag = runOnce();
  EXPECT_THAT(asked(), IsEmpty());
  EXPECT_EQ(*storebag.find("version"), Value("one"));
  EXPECT_EQ(*storebag.find("state"), Value("valid"));
  EXPECT_EQ(*storebag.find("keyID"), Value(lab::StorebagSigner(signingKeyFile("trusted")).id()));
}

TEST_F(KeptStorebags, BeyondTheAgeTheRequestIsConditionalAndNothingChangedKeepsIt) {
  runOnce();
  growOld();
  serve({.status = 304,
         .headers = {{"Cache-Control", "max-age=3600"}, {"Last-Modified", "since one"}}});
  const Dictionary storebag = runOnce();
  EXPECT_THAT(asked(), ElementsAre("since one"));
  EXPECT_EQ(*storebag.find("version"), Value("one"));
  EXPECT_EQ(*storebag.find("state"), Value("valid"));
  EXPECT_EQ(*storebag.find("lastError"), Value());
  runOnce();
  EXPECT_THAT(asked(), IsEmpty()) << "it holds for its age from then on";
}

TEST_F(KeptStorebags, BeyondTheAgeANewOneTakesItsPlace) {
  runOnce();
  growOld();
  serve(signedStorebag("two", 2));
  EXPECT_EQ(*runOnce().find("version"), Value("two"));
  EXPECT_THAT(asked(), ElementsAre("since one"));
  EXPECT_EQ(*runOnce().find("version"), Value("two"));
  EXPECT_THAT(asked(), IsEmpty());
}

TEST_F(KeptStorebags, WhileTheServerIsAwayTheKeptOneIsInForceAndMarkedStale) {
  runOnce();
  growOld();
  const Dictionary before = kept();
  _server.stop();
  const Dictionary storebag = runOnce();
  EXPECT_EQ(*storebag.find("version"), Value("one"));
  EXPECT_EQ(*storebag.find("state"), Value("stale"));
  EXPECT_GE(*storebag.find("ageSeconds")->real(), 7200);
  EXPECT_THAT(*stringAt(storebag, "lastError"), StartsWith("storebagUnreachable"));
  EXPECT_EQ(kept(), before);
}

TEST_F(KeptStorebags, ADamagedOneIsSetAsideWithOneLine) {
  runOnce();
  const std::string whole = contentOf(_root.path(keptFile));
  const std::string damaged = whole.substr(0, whole.size() / 2);
  _root.write(keptFile, damaged);
  expectPassedOver("it is set aside as", "one");
  EXPECT_EQ(contentOf(_root.path(keptFile) + ".damaged"), damaged);
}

TEST_F(KeptStorebags, OneOfAForeignKeyIsSetAsideWithOneLine) {
  runOnce();
  Dictionary file = kept();
  file.set("envelope", Data{signedStorebag("foreign", 9, "strange").body});
  const std::string foreign = writeBinaryPropertyList(file);
  _root.write(keptFile, foreign);
  expectPassedOver("no key of this device verifies its signature; it is set aside as", "one");
  EXPECT_EQ(contentOf(_root.path(keptFile) + ".damaged"), foreign);
}

TEST_F(KeptStorebags, OneThatIsTooOldIsRemovedWithOneLine) {
  deploy("RefuseOlderStorebags", true);
  runOnce();
  const std::string older = contentOf(_root.path(keptFile));
  growOld();
  serve(signedStorebag("two", 2));
  runOnce();
  _root.write(keptFile, older);
  expectPassedOver("its serial 1 is below 2; it is removed", "two");
  EXPECT_FALSE(fs::exists(_root.path(keptFile) + ".damaged"));
}

class WithoutTheSwitches : public KeptStorebags {
 protected:
  void SetUp() override {
    KeptStorebags::SetUp();
    deploy("KeepStorebags", Value());
  }
  // Level and text of a line.
  static std::string said(const std::string& line) {
    return std::regex_replace(line, std::regex(R"(^.* (\w+) corvidd\[\d+\]: )"), "$1 ");
  }
  // What a process of the device asked for and, until its client left, logged; without what differs
  // from one to the next.
  std::string account() {
    runOnce();
    std::string text;
    for (const lab::Request& request : requests()) {
      text += request.method + " " + request.target + "\n";
      for (const auto& [name, value] : request.headers) text += name + ": " + value + "\n";
    }
    for (const std::string& line : lines("")) {
      if (line.find("was invalidated") != line.npos) break;
      text += said(line) + "\n";
    }
    for (const char* const changing : {"UUID .*", "process \\d+", "file from .*"})
      text = std::regex_replace(text, std::regex(changing), "*");
    return text;
  }
};

TEST_F(WithoutTheSwitches, EachStartAsksForTheWholeAndKeepsNothing) {
  const std::string first = account();
  EXPECT_THAT(asked(), ElementsAre(""));
  EXPECT_EQ(account(), first);
  EXPECT_FALSE(fs::exists(_root.path("var/lib/corvidd/Storebags")));
}

TEST_F(WithoutTheSwitches, WhatIsSwitchedOffIsAsIfItWereUnknownWhateverLiesThere) {
  const std::string unknown = account();
  for (const char* const key : {"KeepStorebags", "RequireSHA256Signature", "RefuseOlderStorebags"})
    deploy(key, false);
  deploy("RefreshJitter", 0);
  _root.write(keptFile, "damaged");
  _root.write("var/lib/corvidd/Storebags/serials.plist",
              writeXMLPropertyList(Dictionary{{"lumen", 99}}));
  EXPECT_EQ(account(), unknown);
  EXPECT_EQ(contentOf(_root.path(keptFile)), "damaged");
}

TEST_F(WithoutTheSwitches, TheFetchIsOneRequestAndTheseLines) {
  runOnce();
  ASSERT_EQ(requests().size(), 1u);
  const lab::Request request = requests().front();
  EXPECT_EQ(request.method + " " + request.target, "GET /lumen?version=8.1");
  ASSERT_EQ(request.headers.size(), 1u);
  EXPECT_EQ(request.headers.front().first, "Host");
  std::vector<std::string> fetch;
  for (const std::string& line : lines("")) {
    const bool isOfFetch = std::regex_search(
        line,
        std::regex("storebagForSession|fetch[A-Z]|keptStorebag|keepStorebag|storebagSerials"));
    if (isOfFetch) fetch.push_back(said(line));
  }
  EXPECT_THAT(
      fetch,
      ElementsAre(
          "debug storebagForSession: Retrieving storebag for session 42 with client type 5",
          "debug fetchAndCacheStorebag: Fetching storebag for client type 5",
          "debug fetchStorebagWithName: Storebag Server URL: " + _server.url("/lumen?version=8.1"),
          "debug fetchStorebagWithName: New 'Last-Modified: since one' received",
          "info fetchStorebagForEnvironmentAndClientType: Store bag override MaxAge=3600",
          "debug fetchAndCacheStorebag: Storebag max age: 3600 seconds"));
}

}  // namespace
}  // namespace corvid
