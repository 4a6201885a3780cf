// Storebags that no sound configuration server would publish. Each costs its own clients their
// configuration and nobody else anything.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "base/Describe.h"
#include "platform/data/Crypto.h"
#include "platform/data/PropertyList.h"
#include "tests/e2e/LabFixture.h"
#include "tests/e2e/Limits.h"
#include "tests/platform/data/BinaryListBuilder.h"
#include "tests/support/SigningKeys.h"
#include "tests/support/Waiting.h"
#include "tools/lab/HTTPServer.h"
#include "tools/lab/StorebagSigner.h"

namespace corvid {
namespace {

using lab::Answer;

constexpr std::string_view keyFile = "usr/share/corvid/publicKey.der";

class StorebagFaults : public LabFixture {
 protected:
  void SetUp() override {
    _root.write("var/lib/corvidd/Preferences/com.halcyon.corvid.plist",
                writeXMLPropertyList(Dictionary{{"corvid_storebag_url", _server.url("")}}));
    serve("tessel", sound(storebagPostingTo(urlOf("realtime"))));
    startDaemon();
    admitBystander();
  }

  void serve(const std::string& name, Answer answer) {
    const std::lock_guard lock(_mutex);
    _answers[name] = std::move(answer);
  }
  std::size_t timesAsked(const std::string& name) {
    const std::lock_guard lock(_mutex);
    return _asked[name];
  }

  static Answer body(std::string bytes) {
    return {.headers = {{"Cache-Control", "max-age=600"}}, .body = std::move(bytes)};
  }
  Answer signedBag(const std::string& bag) const { return body(_signer.envelope(bag)); }
  Answer sound(const Dictionary& storebag) const {
    return signedBag(writeXMLPropertyList(Value(storebag)));
  }
  Answer sound() const { return sound(storebagPostingTo(urlOf("events"))); }
  // A sound envelope with one field changed.
  Answer envelopeWith(const std::string& field, Value value) const {
    Dictionary envelope = *parsePropertyList(sound().body).value().dictionary();
    envelope.set(field, std::move(value));
    return body(writeXMLPropertyList(Value(envelope)));
  }

  // What becomes of a client whose storebag is that answer. Each time it is a client of another
  // type, because the daemon asks for a storebag that failed only once in a while.
  std::string configuredWith(Answer answer) {
    static constexpr std::pair<int, const char*> types[] = {
        {5, "lumen"},   {8, "orrery"}, {9, "cadence"}, {10, "quill"},
        {12, "ledger"}, {16, "folio"}, {17, "reel"}};
    const auto& [type, name] = types[_nextType++ % std::size(types)];
    serve(name, std::move(answer));
    _client.emplace(_root.path());
    _clientType = type;
    return _client->configure({.clientType = type}).text();
  }
  // The client is told of no backends, and the log says `reason`, where there is one, and that
  // there is no storebag.
  void expectRefused(Answer answer, std::string_view reason) {
    SCOPED_TRACE(reason);
    const std::size_t before = reason.empty() ? 0 : timesLogged(reason);
    EXPECT_EQ(configuredWith(std::move(answer)), "none");
    if (!reason.empty()) {
      EXPECT_EQ(timesLogged(reason), before + 1) << _daemon->standardError();
    }
    EXPECT_EQ(
        timesLogged(fmt::format("Unable to fetch storebag for client type {}\n", _clientType)), 1u);
    EXPECT_EQ(_client->send("never").text(), "none");
    EXPECT_EQ(arrivals("never"), 0u);
    EXPECT_TRUE(bystanderReports());
  }
  // The client reports to the collector.
  void expectTaken(Answer answer) {
    EXPECT_EQ(configuredWith(std::move(answer)), "httpPost");
    expectReports();
  }
  void expectReports() {
    const std::string mark = fmt::format("taken {}", ++_taken);
    EXPECT_EQ(_client->send(mark).text(), "none");
    EXPECT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << _daemon->standardError();
  }

  std::optional<TestClient> _client;
  int _clientType = 0;
  const lab::StorebagSigner _signer{_lab.root().signingKeyFile()};

 private:
  Answer answer(const lab::Request& request) {
    const std::string name = request.target.substr(1, request.target.find('?') - 1);
    const std::lock_guard lock(_mutex);
    ++_asked[name];
    const auto found = _answers.find(name);
    return found == _answers.end() ? Answer{.status = 404} : found->second;
  }

  std::size_t _nextType = 0;
  int _taken = 0;
  std::mutex _mutex;
  std::map<std::string, Answer> _answers;
  std::map<std::string, std::size_t> _asked;
  lab::HTTPServer _server{[this](const lab::Request& request) { return answer(request); },
                          {lab::TLSIdentity(_lab.root().tlsFolder()).server()}};
};

constexpr const char* unverified = "fetchStorebagWithName: Signature can not be verified, 0x";
constexpr const char* unsigned_ = "fetchStorebagWithName: Signature is missing";
constexpr const char* unreadable = "fetchStorebagWithName: propertyListWithData error";

TEST_F(StorebagFaults, ASoundOneIsTaken) { expectTaken(sound()); }

TEST_F(StorebagFaults, WhatWasChangedAfterItWasSignedIsRefused) {
  Dictionary forged = storebagPostingTo(urlOf("events"), {{"service", "forged"}});
  expectRefused(envelopeWith("bag", base64Encode(writeXMLPropertyList(Value(forged)))), unverified);
  expectRefused(envelopeWith("signature", base64Encode(std::string(256, 'x'))), unverified);
  expectRefused(envelopeWith("signature", base64Encode(_signer.signature("another bag"))),
                unverified);
  expectRefused(envelopeWith("signature", ""), unverified);
  expectRefused(envelopeWith("signature", base64Encode(std::string(100'000, 'x'))), unverified);
  expectRefused(envelopeWith("signature", "=no Base64="), "");
  expectRefused(envelopeWith("bag", "=no Base64="), "");
}

TEST_F(StorebagFaults, AnotherSignersStorebagIsRefused) {
  const lab::StorebagSigner stranger(signingKeyFile("strange"));
  expectRefused(body(stranger.envelope(writeXMLPropertyList(storebagPostingTo(urlOf("events"))))),
                unverified);
  _root.write(keyFile, stranger.publicKeyDER());
  expectRefused(sound(), unverified);
  // The key is read each time.
  _root.write(keyFile, _signer.publicKeyDER());
  expectTaken(sound());
}

TEST_F(StorebagFaults, WithoutAUsableKeyNothingIsTaken) {
  const std::string key = _signer.publicKeyDER();
  for (const std::string& unusable : {std::string(), std::string("-----BEGIN PUBLIC KEY-----"),
                                      key.substr(0, key.size() / 2), std::string(1 << 20, '0')}) {
    _root.write(keyFile, unusable);
    expectRefused(sound(), "");
  }
  _root.remove(keyFile);
  expectRefused(sound(), "");
  _root.write(std::string(keyFile) + "/folder", "");
  expectRefused(sound(), "");
}

TEST_F(StorebagFaults, ATruncatedOneIsRefused) {
  const std::string whole = sound().body;
  expectRefused(body(whole.substr(0, whole.size() / 2)), unreadable);
  expectRefused(body(whole.substr(0, 1)), unreadable);
  expectRefused(body(""), unsigned_);
  Answer broken = sound();
  broken.cutBodyAfter = whole.size() / 2;
  expectRefused(broken, "fetchStorebagWithName: Error resolving with lookup server https://");
  broken = sound();
  broken.cutHeadAfter = 10;
  expectRefused(broken, "fetchStorebagWithName: Error resolving with lookup server https://");
  const std::string binary = writeBinaryPropertyList(parsePropertyList(whole).value());
  expectRefused(body(binary.substr(0, binary.size() - 20)), unreadable);
  expectRefused(signedBag(writeXMLPropertyList(Dictionary{{"version", "1"}}).substr(0, 80)), "");
}

TEST_F(StorebagFaults, AHugeOneIsRefusedWithinBoundedMemory) {
  const auto filled = [](std::size_t size) {
    return Dictionary{{"filler", std::string(size, 'x')}};
  };
  expectRefused(body(writeXMLPropertyList(filled(5 << 20))), unreadable);
  expectRefused(signedBag(writeXMLPropertyList(filled(4 << 20))), unreadable);
  expectRefused(body(std::string(std::size_t{64} << 20, 'x')),
                "fetchStorebagWithName: Error resolving with lookup server https://");
  Answer endless = sound();
  endless.endless = true;
  expectRefused(endless, "fetchStorebagWithName: Error resolving with lookup server https://");
  EXPECT_LT(_daemon->peakMemory(), mostMemory);
}

TEST_F(StorebagFaults, ADeepOneIsRefused) {
  std::string open;
  for (int i = 0; i < 200'000; ++i) open += "<array>";
  expectRefused(body("<plist>" + open), unreadable);
  expectRefused(signedBag("<plist>" + open), "");
  Value nested = "bottom";
  for (int i = 0; i < 40; ++i) nested = Array{std::move(nested)};
  expectRefused(sound({{"version", "1"}, {"release", nested}}), "");
}

TEST_F(StorebagFaults, OneThatExplodesWhenExpandedIsRefusedWithinBoundedMemory) {
  // Each array holds the next one ten times.
  BinaryList bomb;
  for (int level = 1; level <= 20; ++level)
    bomb.objects.push_back('\xaa' + std::string(10, static_cast<char>(level)));
  bomb.objects.push_back("\x5f\x10\x20" + std::string(32, 'x'));
  expectRefused(body(bomb.bytes()), unreadable);
  expectRefused(signedBag(bomb.bytes()), "");
  std::string entities = "<!DOCTYPE plist [<!ENTITY a0 \"xxxxxxxxxx\">";
  for (int i = 1; i < 12; ++i)
    entities += fmt::format("<!ENTITY a{0} \"&a{1};&a{1};&a{1};&a{1};&a{1};&a{1};\">", i, i - 1);
  expectRefused(body(entities + "]><plist><string>&a11;</string></plist>"), unreadable);
  EXPECT_LT(_daemon->peakMemory(), mostMemory);
}

TEST_F(StorebagFaults, AnEnvelopeOfTheWrongTypesIsRefused) {
  expectRefused(envelopeWith("signature", 5), unsigned_);
  expectRefused(envelopeWith("signature", Data{_signer.signature("bag")}), unsigned_);
  expectRefused(envelopeWith("bag", Dictionary{{"version", "1"}}), "");
  expectRefused(body(writeXMLPropertyList(Array{"signature", "bag"})), unsigned_);
  expectRefused(body("{\"signature\": \"x\", \"bag\": \"y\"}"), unreadable);
  expectRefused(body(std::string(1000, '\0')), unreadable);
  expectRefused(signedBag(writeXMLPropertyList(Array{1, 2})), "");
}

TEST_F(StorebagFaults, AStorebagOfTheWrongTypesIsNoStorebag) {
  constexpr const char* noSection =
      "fetchStorebagForEnvironmentAndClientType: Could not find storebag";
  for (const Value& section : {Value("text"), Value(Array{}), Value(7)})
    expectRefused(sound({{"version", "1"}, {"release", section}}), noSection);
  expectRefused(sound({{"version", "1"}, {"seed", Dictionary{}}}), noSection);
}

TEST_F(StorebagFaults, WithoutAVersionTheCallIsNotAnswered) {
  for (const Value& version : {Value(), Value(7), Value(Array{"1"})}) {
    Dictionary storebag = storebagPostingTo(urlOf("events"));
    storebag.set("version", version);
    EXPECT_EQ(configuredWith(sound(storebag)), "unanswered");
    EXPECT_EQ(_client->send("never").text(), "none");
    EXPECT_TRUE(bystanderReports());
  }
}

TEST_F(StorebagFaults, ABackendOfTheWrongTypesIsPassedOver) {
  for (const Value& profile :
       {Value("text"), Value(Dictionary{}), Value(Dictionary{{"clients", "everybody"}})})
    EXPECT_EQ(
        configuredWith(sound({{"version", "1"}, {"release", Dictionary{{"httpPost", profile}}}})),
        "")
        << fmt::format("{}", described(&profile));
  const Dictionary unknown{{"version", "1"}, {"release", Dictionary{{"pigeon", Dictionary{}}}}};
  EXPECT_EQ(configuredWith(sound(unknown)), "");
  EXPECT_TRUE(_daemon->waitForLog("CorvidBackend(newBackendWithName): pigeon"));
  EXPECT_TRUE(bystanderReports());
}

TEST_F(StorebagFaults, AnAddressOfTheWrongTypeIsNone) {
  for (const Value& url : {Value(7), Value(Array{}), Value()}) {
    EXPECT_EQ(configuredWith(sound(storebagPostingTo("", {{"post_url", url}}))), "httpPost");
    EXPECT_EQ(_client->send("never").text(), "none");
    EXPECT_EQ(_client->flush().text(), "-1 Nothing to flush");
  }
  EXPECT_TRUE(bystanderReports());
}

TEST_F(StorebagFaults, AnAddressThatIsNoneIsAnErrorOfEachPost) {
  std::size_t errors = 0;
  for (const char* url : {"", "no url", "file:///etc/passwd", "https://", "http://localhost:1/"}) {
    SCOPED_TRACE(url);
    EXPECT_EQ(configuredWith(sound(storebagPostingTo(url))), "httpPost");
    EXPECT_EQ(_client->send("never").text(), "none");
    _client.reset();
    errors += 3;  // start, event, end
    EXPECT_TRUE(waitUntil(
        [&] { return timesLogged("HTTPSPostBackend(postJsonMessage): post error: ") == errors; }));
  }
  EXPECT_TRUE(bystanderReports());
}

TEST_F(StorebagFaults, TheStatusIsNotLookedAt) {
  Answer answer = sound();
  answer.status = 503;
  expectTaken(answer);
  expectRefused({.status = 500, .body = "the server has a problem"}, unreadable);
  expectRefused({.status = 404}, unsigned_);
  expectRefused(Answer::redirect(urlOf("storebags") + "/bags/birch/lumen"), unsigned_);
}

TEST_F(StorebagFaults, WithoutCacheControlAStorebagIsFreshForADay) {
  Dictionary storebag = storebagPostingTo(urlOf("events"));
  storebag.erase("refresh_cycle");
  Answer answer = sound(storebag);
  answer.headers.clear();
  expectTaken(answer);
  EXPECT_EQ(timesLogged("fetchAndCacheStorebag: Storebag max age: 86400 seconds"), 1u);
  _client.emplace(_root.path());
  EXPECT_EQ(_client->configure({.clientType = _clientType}).text(), "httpPost");
  EXPECT_EQ(timesAsked("lumen"), 1u);
}

// The daemon goes on with the storebag that it has.
TEST_F(StorebagFaults, AnExpiredOneServesUntilThereIsAnother) {
  Dictionary storebag = storebagPostingTo(urlOf("events"));
  storebag.erase("refresh_cycle");
  Answer answer = sound(storebag);
  answer.headers = {{"Cache-Control", "max-age=0"}};
  expectTaken(answer);
  const auto again = [&] {
    _client.emplace(_root.path());
    EXPECT_EQ(_client->configure({.clientType = _clientType}).text(), "httpPost");
    expectReports();
  };
  again();
  EXPECT_EQ(timesAsked("lumen"), 2u);
  serve("lumen", {.status = 500, .body = "no storebag today"});
  again();
  EXPECT_EQ(timesAsked("lumen"), 3u);
  EXPECT_EQ(timesLogged("fetchAndCacheStorebag: Unable to fetch storebag for client type 5"), 1u);
  again();
  EXPECT_EQ(timesAsked("lumen"), 3u);
  EXPECT_EQ(
      timesLogged("storebagForSession: Not fetching storebag for client type 5 - must wait 900 "
                  "seconds between attempts"),
      1u);
}

TEST_F(StorebagFaults, AnUnchangedOneStays) {
  Dictionary storebag = storebagPostingTo(urlOf("events"));
  storebag.set("refresh_cycle", 0);
  const std::pair<std::string, std::string> modified{"Last-Modified", "yesterday"};
  Answer answer = sound(storebag);
  answer.headers = {modified};
  expectTaken(answer);
  serve("lumen", {.status = 304, .headers = {modified}});
  _client.emplace(_root.path());
  EXPECT_EQ(_client->configure({.clientType = _clientType}).text(), "httpPost");
  EXPECT_EQ(timesLogged("fetchStorebagWithName: storebag content has not changed."), 1u);
  expectReports();
}

TEST_F(StorebagFaults, UnchangedIsNoAnswerToTheFirstQuestion) {
  expectRefused({.status = 304, .headers = {{"Last-Modified", "yesterday"}}}, unsigned_);
}

}  // namespace
}  // namespace corvid
