// The lab's page in a real browser, beside the lab that it shows.
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "tests/support/SigningKeys.h"
#include "tests/tools/lab/Peer.h"
#include "tests/tools/lab/page/Browser.h"
#include "tools/lab/Lab.h"

namespace corvid::lab {

// No test leaves an error or a warning in the browser's console.
class PageFixture : public testing::Test {
 protected:
  void SetUp() override {
    browser.open(address("web"));
    ASSERT_TRUE(browser.awaits("document.querySelector('#connection.live')"));
  }
  void TearDown() override { EXPECT_THAT(browser.complaints(), testing::IsEmpty()); }

  std::string address(std::string_view server) const { return *stringAt(lab->addresses(), server); }

  // A record as the daemon writes it.
  static Dictionary record(const std::string& session, int method, int status, int number,
                           const Dictionary& payload = {}, const std::string& sender = "ZH") {
    Dictionary made = payload;
    made.addEntriesFrom({{"_startTS", 1795255260},
                         {"_sender", sender},
                         {"_clientVersion", 3},
                         {"_sessionID", session},
                         {"_eventNumber", number},
                         {"_method", method},
                         {"_status", status},
                         {"_clientTS", 1795255261.5},
                         {"eventTime", 1795255261.5},
                         {"_productModel", "Workbench1,1"},
                         {"_reportVers", "8.1"}});
    return made;
  }

  // The status that a post of these records is answered with.
  long post(const std::string& server, const Array& records, const std::string& sender = "ZH",
            const std::string& client = "Player", const std::string& service = "Evening Film") {
    const Dictionary message{{"postTime", 1795255262.25},
                             {"clientId", "DAE71BE7-ACC1-4DAE-8443-D4DC4A19B73C"},
                             {"events", records}};
    return peer
        .post(address(server), *writeJSON(message),
              {"X-CVD-Sender: " + sender, "X-CVD-Client-Name: " + client,
               "X-CVD-Service-Name: " + service, "Content-Type: application/json"})
        .status;
  }

  // The lines of the list in view that have this class, each with its cells joined by "|".
  std::vector<std::string> lines(const std::string& kind) {
    const Value found = browser.evaluate(fmt::format(R"(
      [...document.querySelectorAll('#list .{}')].filter((row) => !row.hidden)
        .sort((a, b) => a.line - b.line)
        .map((row) => [...row.children].map((cell) => cell.textContent.trim()).join('|')))",
                                                     kind));
    std::vector<std::string> texts;
    for (const Value& text : *found.array()) texts.push_back(*text.string());
    return texts;
  }
  bool awaitsLines(const std::string& kind, std::size_t count) {
    return browser.awaits(fmt::format(
        "[...document.querySelectorAll('#list .{}')].filter((row) => !row.hidden).length === {}",
        kind, count));
  }
  std::string textOf(const std::string& selector) {
    return browser.text(fmt::format("document.querySelector('{}').innerText", selector));
  }

  ScratchLab root;
  std::optional<Lab> lab{std::in_place, root.path(), Lab::Options{.hasPage = true}};
  Peer peer{root.path("lab/tls/ca.pem")};
  Browser browser;
};

}  // namespace corvid::lab
