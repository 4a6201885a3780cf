// Switches on the page, and faults that somebody else has planned.
#include <map>

#include "tests/tools/lab/page/PageFixture.h"

namespace corvid::lab {
namespace {

using testing::HasSubstr;

class PageFaultsTest : public PageFixture {
 protected:
  std::string toggle(const std::string& name) {
    return fmt::format("[role=switch][aria-label=\"{}\"]", name);
  }
  bool awaitsSwitch(const std::string& name, bool isOn) {
    return browser.awaits(fmt::format(
        "document.querySelector('{}').getAttribute('aria-checked') === '{}'", toggle(name), isOn));
  }
  void choose(const std::string& server) {
    browser.evaluate(fmt::format(
        "[...document.querySelectorAll('#servers button')].find((one) => one.innerText === '{}').click()",
        server));
  }
  // Throws a switch as soon as it is in view.
  void throwSwitch(const std::string& name) {
    browser.evaluate(fmt::format("document.querySelector('{}').scrollIntoView({{block: 'center'}})",
                                 toggle(name)));
    browser.click(toggle(name));
  }
  void fill(const std::string& field, const std::string& value) {
    browser.evaluate(fmt::format(
        "document.querySelector('[aria-label=\"{}\"]').scrollIntoView({{block: 'center'}}), "
        "document.querySelector('[aria-label=\"{}\"]').focus(), document.activeElement.select()",
        field, field));
    browser.type(value);
    browser.press("Enter");
  }
};

TEST_F(PageFaultsTest, AFaultSwitchedOnThePageTakesEffect) {
  throwSwitch("Another status");
  ASSERT_TRUE(awaitsSwitch("Another status", true));
  EXPECT_EQ(post("events", {}), 503);
  EXPECT_EQ(post("events", {}), 503) << "it lasts";
  EXPECT_EQ(post("realtime", {}), 200) << "another server";
  ASSERT_TRUE(awaitsLines("arrival", 3));
  EXPECT_THAT(lines("arrival")[0], HasSubstr("fault503"));
  throwSwitch("Another status");
  ASSERT_TRUE(awaitsSwitch("Another status", false));
  EXPECT_EQ(post("events", {}), 200);
}

TEST_F(PageFaultsTest, AParameterIsTheOneThatWasTyped) {
  fill("Another status: how", "418");
  throwSwitch("Another status");
  ASSERT_TRUE(awaitsSwitch("Another status", true));
  EXPECT_EQ(post("events", {}), 418);
  fill("Another status: how", "404");  // while it is on
  ASSERT_TRUE(waitUntil([&] { return post("events", {}) == 404; }));
}

TEST_F(PageFaultsTest, AFaultLastsForSoManyAnswersAsWasTyped) {
  fill("How many answers", "2");
  throwSwitch("Another status");
  ASSERT_TRUE(awaitsSwitch("Another status", true));
  EXPECT_EQ(post("events", {}), 503);
  EXPECT_TRUE(browser.awaits("document.querySelector('.times .unit').innerText === '1 left'"));
  EXPECT_EQ(post("events", {}), 503);
  EXPECT_TRUE(awaitsSwitch("Another status", false)) << "it goes off by itself";
  EXPECT_EQ(post("events", {}), 200);
}

TEST_F(PageFaultsTest, AValueThatCannotBeMeantIsNamed) {
  fill("Another status: how", "99");
  throwSwitch("Another status");
  EXPECT_TRUE(browser.awaits("document.querySelector('#refused').innerText !== ''"));
  EXPECT_THAT(textOf("#refused"), HasSubstr("\"status\" must be"));
  EXPECT_TRUE(awaitsSwitch("Another status", false));
  browser.forgetComplaints();  // the answer 400
}

TEST_F(PageFaultsTest, WhatTheControlAddressPlansIsShown) {
  const Got got = Peer("").post(address("control"),
                                R"({"server":"events","delay":0.25,"silent":true,"times":-1})");
  EXPECT_EQ(got.body, "planned\n");
  EXPECT_TRUE(awaitsSwitch("A delay", true));
  EXPECT_TRUE(awaitsSwitch("No answer at all", true));
  EXPECT_TRUE(awaitsSwitch("Another status", false));
  EXPECT_EQ(browser.text("document.querySelector('[aria-label=\"A delay: how\"]').value"), "0.25");
  browser.click("#calm");
  EXPECT_TRUE(awaitsSwitch("A delay", false));
  EXPECT_TRUE(waitUntil([&] { return lab->faults().plans().empty(); }));
}

TEST_F(PageFaultsTest, EachFaultOfEachServerHasASwitch) {
  const std::map<std::string, std::string> faults{
      {"Another status", "status"},        {"Another body", "body"},
      {"A redirect", "redirect"},          {"A delay", "delay"},
      {"No answer at all", "silent"},      {"Cut in the head", "cutHeadAfter"},
      {"Cut in the body", "cutBodyAfter"}, {"A body without end", "endless"},
      {"A wrong byte", "corrupt"},         {"Half of the body", "truncate"}};
  // A key that there is no switch for would be missing here too.
  EXPECT_EQ(faults.size() + 2, FaultPlan::keys().size()) << "besides \"server\" and \"times\"";
  for (const std::string server : {"storebags", "events", "realtime", "logData", "upload"}) {
    choose(server);
    for (const auto& [name, key] : faults) {
      throwSwitch(name);
      ASSERT_TRUE(awaitsSwitch(name, true)) << server << ": " << name;
    }
    const Dictionary plans = lab->faults().plans();
    for (const auto& [name, key] : faults)
      EXPECT_TRUE(dictionaryAt(plans, server)->contains(key)) << server << ": " << name;
  }
  choose("dashboard");
  const std::map<std::string, std::string> wire{
      {"Lost", "drop"},       {"Doubled", "duplicate"},
      {"Damaged", "corrupt"}, {"After the next", "reorder"},
      {"Late", "late"},       {"Late by", "delay"}};
  for (const std::string way : {"packets", "acknowledgements"}) {
    for (const auto& [name, key] : wire) {
      throwSwitch(way + ": " + name);
      ASSERT_TRUE(awaitsSwitch(way + ": " + name, true)) << name;
      EXPECT_TRUE(dictionaryAt(lab->dashboard().faults(), way)->contains(key)) << name;
    }
  }
  EXPECT_EQ(browser.number("document.querySelectorAll('#servers .faulty').length"), 6);
  browser.click("#calm");
  EXPECT_TRUE(browser.awaits("document.querySelectorAll('#servers .faulty').length === 0"));
  EXPECT_TRUE(lab->faults().plans().empty());
  EXPECT_TRUE(lab->dashboard().faults().empty());
}

}  // namespace
}  // namespace corvid::lab
