// Collectors that break rules, and which checks find them out.
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "base/Mutex.h"
#include "base/Text.h"
#include "tests/tools/lab/conform/CannedServer.h"
#include "tools/lab/conform/Conformance.h"

namespace corvid::lab::conform {
namespace {

using Names = std::set<std::string, std::less<>>;
using Request = CannedServer::Request;

const Names taking{"plainPost",    "gzipPost",    "realtimePost", "fewHeaders",   "headerNames",
                   "headerTexts",  "texts",       "numbers",      "unknownKeys",  "largePost",
                   "repeatedPost", "keepAlive",   "pipelining",   "goAhead",      "othersServed",
                   "upload",       "uploadAgain", "logData",      "logDataAgain", "stillServing"};
const Names notFailing{"nesting",     "duplicateKeys", "members",    "nul",        "surrogates",
                       "numberRange", "chunks",        "oddHeaders", "uploadNames"};
// Where the connection may end instead of an answer.
const Names endable{"wrongLength", "cutBody", "endlessHeaders", "noHTTP"};

Names allNames() {
  Names names;
  for (const Check& check : allChecks()) names.emplace(check.name);
  return names;
}

Names without(Names names, const Names& others) {
  for (const std::string& name : others) names.erase(name);
  return names;
}

// What the checks find broken; `only` of them where it is given.
Names brokenAt(const CannedServer& server, std::chrono::milliseconds patience,
               const Names& only = allNames()) {
  Collector collector = collectorAt(server.url());
  collector.patience = patience;
  Device device(collector);
  Names broken;
  for (const Check& check : allChecks())
    if (only.contains(check.name) && finding(check, device).kind == Finding::Kind::broken)
      broken.emplace(check.name);
  return broken;
}

constexpr std::chrono::seconds longPatience{20};
constexpr std::chrono::milliseconds shortPatience{50};

CannedServer::Answer takes(const Request&) { return canned(200, "{\"success\":true}"); }

TEST(WrongCollectorsTest, EveryCheckHasANameOfItsOwn) {
  EXPECT_EQ(allNames().size(), allChecks().size());
}

TEST(WrongCollectorsTest, WhoFailsAtEverythingBreaksEveryRule) {
  const CannedServer server([](const Request&) { return canned(500, "success"); });
  EXPECT_EQ(brokenAt(server, longPatience), allNames());
}

TEST(WrongCollectorsTest, WhoTakesEverythingBreaksEachRuleAboutRefusals) {
  const CannedServer server(takes);
  Names expected = without(without(allNames(), taking), notFailing);
  expected.insert("pipelining");  // the second of its requests is to be refused
  EXPECT_EQ(brokenAt(server, longPatience), expected);
}

TEST(WrongCollectorsTest, WhoRefusesEverythingBreaksEachRuleAboutWhatIsTaken) {
  const CannedServer server([](const Request&) { return canned(400, "no\n"); });
  EXPECT_EQ(brokenAt(server, longPatience), taking);
}

TEST(WrongCollectorsTest, WhoRedirectsEverythingTakesAndRefusesNothing) {
  const CannedServer server([](const Request&) { return canned(302); });
  EXPECT_EQ(brokenAt(server, longPatience), without(allNames(), notFailing));
}

TEST(WrongCollectorsTest, WhoNeverAnswersBreaksEveryRuleButOfThePostThatBreaksOff) {
  const CannedServer server(takes, CannedServer::Service::silently);
  EXPECT_EQ(brokenAt(server, shortPatience), without(allNames(), {"cutBody"}));
}

TEST(WrongCollectorsTest, WhoEndsEveryConnectionBreaksAllButWhatMayEndIt) {
  const CannedServer server([](const Request&) { return CannedServer::Answer{{}, true}; });
  EXPECT_EQ(brokenAt(server, longPatience), without(allNames(), endable));
}

TEST(WrongCollectorsTest, WhoSpeaksNoHTTPBreaksEveryRule) {
  const CannedServer server([](const Request&) { return CannedServer::Answer{"taken\r\n\r\n"}; });
  EXPECT_EQ(brokenAt(server, longPatience), allNames());
}

// Takes everything but what one rule is about.
struct Picky {
  const char* check;
  std::function<bool(const Request&)> minds;
};

bool has(std::string_view text, std::string_view part) { return text.find(part) != text.npos; }

TEST(WrongCollectorsTest, WhoMindsWhatDevicesSendIsFoundOutByTheCheckOfThat) {
  const std::vector<Picky> all{
      {"gzipPost", [](const Request& r) { return has(r.head, "Content-Encoding: gzip"); }},
      {"realtimePost", [](const Request& r) { return has(r.head, "X-CVD-Event-Map"); }},
      {"fewHeaders", [](const Request& r) { return !has(r.head, "X-CVD-Client-Name"); }},
      {"headerNames", [](const Request& r) { return has(r.head, "content-encoding"); }},
      {"headerTexts", [](const Request& r) { return !isASCII(r.head); }},
      {"texts", [](const Request& r) { return has(r.body, "\\ud83d"); }},
      {"numbers", [](const Request& r) { return has(r.body, "e-300"); }},
      {"unknownKeys", [](const Request& r) { return has(r.body, "odd"); }},
      {"largePost", [](const Request& r) { return r.body.size() > 20'000; }},
      {"goAhead", [](const Request& r) { return has(r.head, "Expect:"); }},
      {"uploadNames", [](const Request& r) { return has(r.head, "%2Fetc"); }},
      {"chunks", [](const Request& r) { return has(r.head, "Transfer-Encoding: chunked"); }},
      {"oddHeaders", [](const Request& r) { return has(r.head, "X-CVD-Sender: QA"); }},
      {"nesting", [](const Request& r) { return has(r.body, "[[[[[[[["); }},
      {"nul", [](const Request& r) { return has(r.body, "\\u0000"); }},
      {"surrogates", [](const Request& r) { return has(r.body, "\\udc00"); }},
      {"duplicateKeys", [](const Request& r) { return has(r.body, "\"a\":2"); }},
      {"numberRange", [](const Request& r) { return has(r.body, "1e999"); }},
      {"members", [](const Request& r) { return has(r.body, "\"99\":0"); }},
  };
  for (const Picky& picky : all) {
    const CannedServer server([&](const Request& request) {
      return picky.minds(request) ? canned(500) : takes(request);
    });
    EXPECT_EQ(brokenAt(server, longPatience, {"plainPost", picky.check}), Names{picky.check});
  }
}

TEST(WrongCollectorsTest, WhoRefusesWhatComesAgainIsFoundOut) {
  Mutex mutex;
  Names bodies;
  const CannedServer server([&](const Request& request) {
    const MutexLock lock(mutex);
    return bodies.insert(request.body).second ? takes(request) : canned(409);
  });
  EXPECT_EQ(brokenAt(server, longPatience,
                     {"plainPost", "repeatedPost", "upload", "uploadAgain", "logDataAgain"}),
            (Names{"repeatedPost", "uploadAgain", "logDataAgain"}));
}

TEST(WrongCollectorsTest, WhoEndsConnectionsWithoutSayingSoIsFoundOut) {
  const auto answersOnce = [](std::string_view more) {
    return [more](const Request&) {
      return CannedServer::Answer{
          std::string("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n").append(more).append("\r\n"),
          true};
    };
  };
  const Names tried{"plainPost", "keepAlive", "pipelining"};
  EXPECT_EQ(brokenAt(CannedServer(answersOnce("")), longPatience, tried),
            (Names{"keepAlive", "pipelining"}));
  EXPECT_EQ(brokenAt(CannedServer(answersOnce("Connection: close\r\n")), longPatience, tried),
            Names());
}

TEST(WrongCollectorsTest, WhoServesOneConnectionAfterTheOtherIsFoundOut) {
  const CannedServer server(takes, CannedServer::Service::oneByOne);
  EXPECT_EQ(brokenAt(server, shortPatience * 10, {"plainPost", "othersServed"}),
            Names{"othersServed"});
}

TEST(WrongCollectorsTest, WhoStopsServingAfterAWrongPostIsFoundOut) {
  std::atomic<bool> isOffended = false;
  const CannedServer server([&](const Request& request) {
    if (!request.body.starts_with('{')) isOffended = true;
    return isOffended ? canned(503) : takes(request);
  });
  EXPECT_EQ(brokenAt(server, longPatience, {"plainPost", "noJSON", "stillServing"}),
            (Names{"noJSON", "stillServing"}));
}

TEST(WrongCollectorsTest, WhoRepeatsWhatIsSentIsFoundOut) {
  const CannedServer server(
      [](const Request& request) { return canned(400, "refused: " + request.head); });
  EXPECT_EQ(brokenAt(server, longPatience, {"uploadDamaged", "uploadWord"}), Names{"uploadWord"});
}

TEST(WrongCollectorsTest, WhoDoesNotConfirmIsFoundOut) {
  const CannedServer server([](const Request&) { return canned(200); });
  EXPECT_EQ(brokenAt(server, longPatience, {"plainPost", "upload", "uploadAgain", "logData"}),
            (Names{"upload", "uploadAgain", "logData"}));
}

}  // namespace
}  // namespace corvid::lab::conform
