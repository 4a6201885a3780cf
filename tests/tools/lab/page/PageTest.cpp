// What the page shows of what arrives, and how people find their way in it.

#include <filesystem>

#include "backends/dashboard/TagReportingPacket.h"
#include "tests/support/Loopback.h"
#include "tests/tools/lab/page/PageFixture.h"

namespace corvid::lab {
namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::SizeIs;

class PageTest : public PageFixture {
 protected:
  void sendPacket(std::string_view datagram) {
    const Descriptor socket = connectOnLoopback(lab->dashboard().port(), SOCK_DGRAM);
    ::send(socket.get(), datagram.data(), datagram.size(), 0);
  }
};

TEST_F(PageTest, EventsStandBelowThePostThatBroughtThem) {
  post("events",
       {record("A", 0, 0, 1), record("A", 7, 2, 2, {{"action", "play"}, {"position", 12.5}}),
        record("A", 7, 1, 3), record("A", 0, 1, 4, {{"StorebagVersion", "7"}})});
  ASSERT_TRUE(awaitsLines("event", 4));
  EXPECT_THAT(lines("event"), ElementsAre("|#1|0.0|start|", "|#2|7.2||action=play  position=12.5",
                                          "|#3|7.1|stop|", "|#4|0.1|end|StorebagVersion=7"));
  EXPECT_THAT(lines("arrival"),
              ElementsAre(AllOf(HasSubstr("|events|ZH Player · Evening Film|4 events|"))));
}

TEST_F(PageTest, ARecordFoldsOutIntoEachOfItsFields) {
  post("events", {record("A.B", 7, 2, 2, {{"action", "play"}, {"seats", Array{4, 5}}})});
  ASSERT_TRUE(awaitsLines("event", 1));
  browser.click("#list .event");
  ASSERT_TRUE(awaitsLines("field", 14));
  EXPECT_THAT(lines("field"), IsSupersetOf({HasSubstr("action|play"), HasSubstr("seats.0|4"),
                                            HasSubstr("seats.1|5"), HasSubstr("_sessionID|A.B"),
                                            HasSubstr("_eventNumber|2"), HasSubstr("_sender|ZH"),
                                            HasSubstr("eventTime|1795255261.5")}));
  browser.click("#list .event");
  EXPECT_TRUE(awaitsLines("field", 0));
}

TEST_F(PageTest, APostFoldsOutIntoWhatSurroundsItsEvents) {
  post("events", {record("A", 7, 2, 2)});
  ASSERT_TRUE(awaitsLines("arrival", 1));
  browser.click("#list .arrival");
  ASSERT_TRUE(browser.awaits("document.querySelector('#list .field:not([hidden])')"));
  EXPECT_THAT(lines("field"), IsSupersetOf({HasSubstr("target|/events"), HasSubstr("status|200"),
                                            HasSubstr("headers.X-CVD-Sender|ZH"),
                                            HasSubstr("message.clientId|DAE71BE7")}));
}

TEST_F(PageTest, ALongValueIsShownToItsEnd) {
  std::string value;
  for (int i = 0; i < 300; ++i) value += std::to_string(i) + ",";
  post("events", {record("A", 7, 2, 2, {{"long", value}})});
  ASSERT_TRUE(awaitsLines("event", 1));
  browser.click("#list .event");
  ASSERT_TRUE(browser.awaits("document.querySelector('#list .field:not([hidden])')"));
  std::string shown;
  for (const std::string& line : lines("field")) {
    if (line.starts_with("_")) break;
    shown += line.substr(line.find('|') + 1);
  }
  EXPECT_EQ(shown, value);
}

TEST_F(PageTest, EverythingFoldsOutAtOnce) {
  post("events", {record("A", 7, 2, 1), record("A", 7, 2, 2)});
  ASSERT_TRUE(awaitsLines("event", 2));
  browser.resize(1280, 1600);
  browser.click("#unfold");
  ASSERT_TRUE(awaitsLines("field", 22));
  post("events", {record("A", 7, 2, 3)});  // what comes later as well
  EXPECT_TRUE(awaitsLines("field", 33));
  browser.click("#unfold");
  EXPECT_TRUE(awaitsLines("field", 0));
}

TEST_F(PageTest, PostsAndPacketsHaveStatusAndSize) {
  lab->faults().set({{"server", "events"}, {"status", 503}});
  EXPECT_EQ(post("events", {record("A", 7, 2, 1)}), 503);
  EXPECT_EQ(peer.post(address("realtime"), "nonsense").status, 400);
  peer.post(address("logData"), "nonsense");
  TagReportingPacketHeader header;
  header.method = 7;
  header.respCode = 2;
  header.eventID = 258;
  const Dictionary payload{{"formula", "a=b"}};
  sendPacket(TagReportingPacket(header, &payload).datagram());
  sendPacket("no packet");
  ASSERT_TRUE(awaitsLines("arrival", 5));
  const auto arrived = lines("arrival");
  EXPECT_THAT(arrived[0], AllOf(HasSubstr("|events|"), HasSubstr(" B|fault503")));
  EXPECT_THAT(arrived[1],
              HasSubstr("|realtime|the body is not JSON: Invalid value at byte 1||8 B|400"));
  EXPECT_THAT(arrived[2], AllOf(HasSubstr("|logData|"), HasSubstr("|8 B|400")));
  EXPECT_THAT(arrived[3],
              AllOf(HasSubstr("|dashboard|formula=a=b|7.2 #258|"), HasSubstr(" B|ack")));
  EXPECT_THAT(arrived[4], HasSubstr("|dashboard|9 bytes are no packet||9 B|refused"));
}

TEST_F(PageTest, SessionsStandAsChains) {
  post("events", {record("top", 0, 0, 1)});
  post("events", {record("middle", 7, 2, 1, {}, "KC")}, "KC");
  post("realtime", {record("top.middle.low", 8, 2, 1, {}, "QD")}, "QD");
  post("events", {record("other", 0, 1, 9)}, "ZH", "Meeting", "");
  ASSERT_TRUE(browser.awaits("document.querySelectorAll('.session').length === 4"));
  const Value shown = browser.evaluate(R"([...document.querySelectorAll('#chains > *')].map((one) =>
      one.matches('.session')
        ? [one.dataset.level, ...[...one.querySelectorAll('.sender, .id, .events')].map((part) => part.textContent),
           one.classList.contains('over')].join(' ')
        : one.textContent))");
  std::vector<std::string> texts;
  for (const Value& text : *shown.array()) texts.push_back(*text.string());
  // The middle one had no parent at first; what came last counts.
  EXPECT_THAT(texts, ElementsAre("Player · Evening Film", "0 ZH top 1 event false",
                                 "1 KC middle 1 event false", "2 QD low 1 event false", "Meeting",
                                 "0 ZH other 1 event true"));
}

TEST_F(PageTest, ASessionThatIsPressedFiltersByIt) {
  post("events", {record("one", 7, 2, 1), record("two", 7, 2, 1)});
  ASSERT_TRUE(awaitsLines("event", 2));
  browser.click(".session");
  EXPECT_TRUE(awaitsLines("event", 1));
  browser.click(".session");
  EXPECT_TRUE(awaitsLines("event", 2));
}

TEST_F(PageTest, OnANarrowScreenASessionThatIsPressedLeadsToItsEvents) {
  browser.resize(400, 800);
  post("events", {record("one", 7, 2, 1)});
  ASSERT_TRUE(awaitsLines("event", 1));
  browser.click("[data-show=sessions]");
  browser.click(".session");
  EXPECT_TRUE(browser.awaits("document.querySelector('#arrivals').getClientRects().length > 0"));
  EXPECT_EQ(browser.text("document.querySelector('#filter').value"), "one");
}

TEST_F(PageTest, AFilterLeavesWhatHasAllItsWords) {
  post("events",
       {record("A", 7, 2, 1, {{"action", "play"}}), record("A", 7, 3, 2, {{"action", "pause"}})});
  post("realtime", {record("A", 8, 2, 3, {{"action", "play"}})}, "KC");
  ASSERT_TRUE(awaitsLines("event", 3));
  const auto filtered = [&](const std::string& text) {
    browser.evaluate("document.querySelector('#filter').select()");
    browser.press("/");  // ends in the field, whatever has the keyboard
    browser.evaluate("document.querySelector('#filter').select()");
    browser.type(text);
    EXPECT_TRUE(browser.awaits("document.querySelector('#filter').value === '" + text + "'"));
    return lines("event");
  };
  EXPECT_THAT(filtered("ACTION=play"), SizeIs(2));
  EXPECT_THAT(filtered("play kc"), ElementsAre("|#3|8.2||action=play"));
  EXPECT_THAT(filtered("-action=play"), ElementsAre("|#2|7.3||action=pause"));
  EXPECT_THAT(filtered("nothing"), SizeIs(0));
  EXPECT_EQ(textOf("#empty"), "Nothing that arrived matches.");
  browser.press("Escape");
  EXPECT_TRUE(awaitsLines("event", 3));
}

TEST_F(PageTest, AServerCanBeHidden) {
  post("events", {record("A", 7, 2, 1)});
  post("realtime", {record("A", 7, 2, 2)});
  ASSERT_TRUE(awaitsLines("arrival", 2));
  browser.click(".chip.events");
  ASSERT_TRUE(awaitsLines("arrival", 1));
  EXPECT_THAT(lines("arrival")[0], HasSubstr("|realtime|"));
}

TEST_F(PageTest, APauseHoldsBackWhatArrives) {
  post("events", {record("A", 7, 2, 1)});
  ASSERT_TRUE(awaitsLines("event", 1));
  browser.click("#pause");
  post("events", {record("A", 7, 2, 2)});
  ASSERT_TRUE(browser.awaits("document.querySelector('#pause').textContent === 'Paused, 1 new'"));
  EXPECT_THAT(lines("event"), SizeIs(1));
  EXPECT_EQ(textOf("[data-count=events]"), "1");
  browser.click("#pause");
  EXPECT_TRUE(awaitsLines("event", 2));
  EXPECT_EQ(textOf("#pause"), "Pause");
}

TEST_F(PageTest, StorebagsSayWhichVersionIsInForce) {
  const auto bag = [&](int index) {
    return textOf(fmt::format("#bags > :nth-child({}) .bag", index));
  };
  ASSERT_TRUE(browser.awaits("document.querySelectorAll('.bag').length === 9"));
  EXPECT_EQ(bag(1), "cadence\nnot fetched");
  EXPECT_EQ(peer.get(address("storebags") + "/bags/birch/cadence").status, 200);
  ASSERT_TRUE(browser.awaits("document.querySelector('.bag').innerText.includes('1.0.0-cadence')"));
  EXPECT_THAT(bag(1), HasSubstr("200 "));

  const std::string file = root.path("lab/storebags/cadence.plist");
  std::string content = contentOf(file);
  content.replace(content.find("1.0.0-cadence"), 13, "2");
  root.write("lab/storebags/cadence.plist", content);
  std::filesystem::last_write_time(file,
                                   std::filesystem::last_write_time(file) + std::chrono::hours(1));
  ASSERT_TRUE(browser.awaits("document.querySelector('.bag').innerText.includes('edited')"));
  EXPECT_THAT(bag(1), HasSubstr("1.0.0-cadence")) << "the daemon has the old one";
  browser.click(".bag");
  EXPECT_TRUE(browser.awaits(
      "document.querySelector('#bags pre').textContent.includes('\"version\": \"2\"')"));

  root.write("lab/storebags/cadence.plist", "no list");
  EXPECT_TRUE(
      browser.awaits("document.querySelector('.bag').innerText.includes('cannot be served')"));
}

TEST_F(PageTest, TextsOfRecordsNeverBecomeMarkup) {
  const std::string attack = "<img src=x onerror=alert(1)><b>bold</b>";
  post("events", {record(attack, 7, 2, 1, {{attack, attack}, {"__proto__", attack}}, attack)},
       attack, attack, attack);
  ASSERT_TRUE(awaitsLines("event", 1));
  browser.click("#list .event");
  browser.click("#list .arrival");
  ASSERT_TRUE(browser.awaits("document.querySelector('#list .field:not([hidden])')"));
  EXPECT_EQ(browser.number("document.querySelectorAll('img, #list b b, #chains b').length"), 0);
  EXPECT_THAT(lines("event")[0], HasSubstr(attack + "=" + attack));
  EXPECT_THAT(textOf("#chains h3"), HasSubstr("<b>bold</b>"));
  // And what came as text could not be made markup by mistake.
  EXPECT_TRUE(browser.holds(R"((() => {
    try { document.createElement('p').innerHTML = '<b>x</b>'; return false; } catch { return true; }
  })())"));
  browser.forgetComplaints();
}

TEST_F(PageTest, TheKeyboardReachesEverything) {
  post("events", {record("A", 7, 2, 1, {{"action", "play"}})});
  ASSERT_TRUE(awaitsLines("event", 1));
  std::vector<std::string> reached;
  for (int i = 0; i < 80; ++i) {
    browser.press("Tab");
    reached.push_back(browser.text(
        "(document.activeElement.id || document.activeElement.getAttribute('aria-label') || "
        "document.activeElement.innerText).split('\\n')[0]"));
  }
  EXPECT_THAT(reached, IsSupersetOf({"unfold", "pause", "filter", "list", "follow", "calm", "ZH",
                                     "events", "No answer at all", "A delay: how", "cadence"}));
  EXPECT_TRUE(browser.holds(R"([...document.querySelectorAll('button, input')]
      .every((one) => one.innerText || one.getAttribute('aria-label')))"))
      << "something has no name";

  browser.evaluate("document.querySelector('#list').focus()");
  browser.press("Home");
  browser.press("ArrowDown");
  browser.press("Enter");
  EXPECT_TRUE(browser.awaits("document.querySelector('#list .field:not([hidden])')"));
  EXPECT_EQ(browser.text("document.getElementById(document.querySelector('#list')"
                         ".getAttribute('aria-activedescendant')).className"),
            "line event current");
  browser.press("ArrowLeft");
  EXPECT_TRUE(awaitsLines("field", 0));
  browser.press("p");
  EXPECT_EQ(textOf("#pause"), "Paused");
  browser.press("p");
  browser.evaluate("document.querySelector('#servers [aria-checked=true]').focus()");
  browser.press("ArrowRight");
  EXPECT_EQ(textOf("#servers [aria-checked=true]"), "realtime");
}

TEST_F(PageTest, ALabThatComesAgainIsShownAnew) {
  post("events", {record("A", 7, 2, 1)});
  ASSERT_TRUE(awaitsLines("event", 1));
  const std::string before = address("web");
  const auto port = static_cast<std::uint16_t>(std::stoi(before.substr(before.rfind(':') + 1)));
  lab.reset();
  ASSERT_TRUE(browser.awaits("document.querySelector('#connection.away')"));
  lab.emplace(root.path(), Lab::Options{.hasPage = true, .pagePort = port});
  ASSERT_TRUE(browser.awaits("document.querySelector('#connection.live')"));
  ASSERT_TRUE(awaitsLines("event", 0)) << "what the lab before received is not this one's";
  post("events", {record("B", 7, 2, 2)});
  ASSERT_TRUE(awaitsLines("event", 1));
  EXPECT_THAT(lines("event")[0], HasSubstr("#2"));
  browser.forgetComplaints();  // it said that the lab was away
}

TEST_F(PageTest, APageThatIsOpenedLaterShowsWhatCameBefore) {
  post("events", {record("A", 7, 2, 1)});
  lab->faults().set({{"server", "upload"}, {"silent", true}});
  browser.open(address("web"));
  EXPECT_TRUE(awaitsLines("event", 1));
  EXPECT_TRUE(browser.awaits("document.querySelector('#servers .faulty')"));
}

TEST(PageBrowser, LeavesNoProcessBehind) {
  std::string folder;
  const auto processes = [&] {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc"))
      count += contentOf(entry.path() / "cmdline").find(folder) != std::string::npos;
    return count;
  };
  {
    Browser browser;
    folder = browser.folder();
    EXPECT_GE(processes(), 2);
  }
  EXPECT_TRUE(waitUntil([&] { return processes() == 0; }));
  EXPECT_FALSE(std::filesystem::exists(folder));
}

}  // namespace
}  // namespace corvid::lab
