// The page as people see it: small and large, light and dark. Where CORVID_SCREENSHOTS names a
// folder, the pictures that are taken here are kept in it.

#include <cstdlib>
#include <fstream>

#include "backends/dashboard/TagReportingPacket.h"
#include "tests/support/Loopback.h"
#include "tests/tools/lab/page/PageFixture.h"
#include "tests/tools/lab/page/Picture.h"

namespace corvid::lab {
namespace {

// Each text that is not told well enough from what lies behind it, with the contrast that it has
// (as WCAG 2 counts it; 4.5 is enough for small text).
constexpr const char* paleTexts = R"JS((() => {
  const parse = (text) => {
    const [r, g, b, a = 1] = text.match(/[\d.]+/g).map(Number);
    return {r, g, b, a};
  };
  const over = (top, under) => {
    const mix = (name) => top[name] * top.a + under[name] * (1 - top.a);
    return {r: mix('r'), g: mix('g'), b: mix('b'), a: 1};
  };
  const ground = (element) => {
    const layers = [];
    for (let one = element; one; one = one.parentElement) {
      if (getComputedStyle(one).opacity !== '1') throw new Error('opacity is not looked at here');
      layers.push(parse(getComputedStyle(one).backgroundColor));
    }
    return layers.reduceRight((under, top) => over(top, under), {r: 255, g: 255, b: 255, a: 1});
  };
  const luminance = ({r, g, b}) => {
    const linear = [r, g, b].map((value) => {
      const part = value / 255;
      return part <= 0.04045 ? part / 12.92 : ((part + 0.055) / 1.055) ** 2.4;
    });
    return 0.2126 * linear[0] + 0.7152 * linear[1] + 0.0722 * linear[2];
  };
  const contrast = (a, b) => {
    const [bright, dim] = [luminance(a), luminance(b)].sort((x, y) => y - x);
    return (bright + 0.05) / (dim + 0.05);
  };
  const pale = [];
  let looked = 0;
  const look = (element, color, text) => {
    if (element.getClientRects().length === 0) return;
    ++looked;
    const behind = ground(element);
    const ratio = contrast(over(parse(color), behind), behind);
    if (!(ratio >= 4.5)) pale.push(`${text}: ${ratio.toFixed(2)}`);
  };
  const texts = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
  while (texts.nextNode()) {
    const text = texts.currentNode.textContent.trim();
    const element = texts.currentNode.parentElement;
    if (text !== '') look(element, getComputedStyle(element).color, text);
  }
  for (const input of document.querySelectorAll('input')) {
    look(input, getComputedStyle(input).color, input.value);
    look(input, getComputedStyle(input, '::placeholder').color, input.placeholder);
  }
  if (looked < 10) throw new Error('there is hardly a text');
  return pale;
})())JS";

// What reaches out of the window at its side, and each text that is cut off without a sign of it.
constexpr const char* cutOff = R"JS((() => {
  const cut = [];
  const describe = (one) => `${one.tagName}.${one.className} "${one.textContent.slice(0, 40)}"`;
  if (document.scrollingElement.scrollWidth > innerWidth) cut.push('the page scrolls sideways');
  for (const one of document.body.querySelectorAll('*')) {
    if (one.parentElement.closest('.clip')) continue; // that ends in "…"
    const box = one.getBoundingClientRect();
    if (box.width === 0 || box.height === 0) continue;
    if (box.right > innerWidth + 0.5 || box.left < -0.5) cut.push(`outside: ${describe(one)}`);
    const style = getComputedStyle(one);
    const saysSo = style.textOverflow === 'ellipsis' || ['auto', 'scroll'].includes(style.overflowX);
    const isHolder = one.matches('#list, input, .toggle, .fold, .branch');
    if (!saysSo && !isHolder && one.scrollWidth > one.clientWidth + 1 && style.display !== 'inline')
      cut.push(`cut: ${describe(one)}`);
  }
  return cut;
})())JS";

struct Look {
  int width;
  int height;
  std::string scheme;
  std::string name() const { return fmt::format("lab-{}-{}", width, scheme); }
};

void PrintTo(const Look& look, std::ostream* out) { *out << look.name(); }

class PageLooksTest : public PageFixture, public testing::WithParamInterface<Look> {
 protected:
  static constexpr std::size_t mostBytes = 150'000;

  void SetUp() override {
    browser.resize(GetParam().width, GetParam().height);
    browser.setColorScheme(GetParam().scheme);
    PageFixture::SetUp();
    arrive();
  }

  // A little of everything.
  void arrive() {
    const std::string film = "URjmgAZ/RKyN8cUmbbz2ww==";
    const std::string stream = film + ".Qm2p0fXkTgKz7Yq1uS4vBw==";
    const std::string decoder = stream + ".kf83JzWbQ0aLr5dE6hNxPg==";
    const std::string meeting = "b7Vn2sYcRjOe1mTq9LwKxQ==";
    for (const char* name : {"lumen", "cadence", "reel"})
      peer.get(address("storebags") + "/bags/birch/" + name);
    post("events", {record(film, 0, 0, 1, {{"AutomaticTimeSet", 1}}),
                    record(film, 7, 2, 2, {{"action", "play"}, {"position", 12.5}})});
    post("events",
         {record(stream, 0, 0, 1, {}, "KC"),
          record(stream, 9, 2, 2,
                 {{"action", "fetch"}, {"host", "media.example.org"}, {"size", 481231}}, "KC")},
         "KC");
    peer.post(address("upload") + "?filename=call%20log.txt", "no gzip");
    lab->faults().set({{"server", "realtime"}, {"status", 503}, {"delay", 0.01}});
    post("realtime", {record(decoder, 8, 2, 1, {{"action", "stalled"}, {"seconds", 4}}, "QD")},
         "QD");
    post("events",
         {record(meeting, 0, 0, 1), record(meeting, 3, 2, 2, {{"seats", 4}}),
          record(meeting, 0, 1, 3, {{"StorebagVersion", "1.0.0-lumen"}})},
         "ZH", "Meeting", "Stage");
    sendPacket();
    post("events",
         {record(film, 7, 3, 3, {{"action", "pause"}, {"position", 61.25}}),
          record(film, 7, 2, 4, {{"action", "play"}, {"position", 61.25}}),
          record(
              film, 7, 4, 5,
              {{"action", "seek"},
               {"from", 61.25},
               {"to", 1804.5},
               {"account", "7a64adf28737ea90719cbdf0b1a87a5effff3753b79c91d717f4f4153ead0498"}})});
    lab->faults().set({{"server", "events"}, {"status", 503}, {"delay", 2}, {"times", 3}});
    ASSERT_TRUE(browser.awaits("document.querySelector('[data-count=posts]').innerText === '6'"));
    ASSERT_TRUE(browser.awaits("document.querySelector('[data-count=packets]').innerText === '1'"));
    ASSERT_TRUE(browser.awaits("document.querySelector('.times .unit').innerText === '3 left'"));
    // One record folded out.
    browser.evaluate(
        "[...document.querySelectorAll('#list .event:not([hidden])')]"
        ".find((row) => row.textContent.includes('seek')).click()");
    ASSERT_TRUE(browser.awaits("document.querySelector('#list .field:not([hidden])')"));
  }

  void sendPacket() {
    TagReportingPacketHeader header;
    header.method = 7;
    header.respCode = 2;
    header.eventID = 258;
    header.sessionID = 42;
    const Dictionary payload{{"formula", "a=b"}, {"count", 4}};
    const TagReportingPacket packet(header, &payload);
    const Descriptor socket = connectOnLoopback(lab->dashboard().port(), SOCK_DGRAM);
    ::send(socket.get(), packet.datagram().data(), packet.datagram().size(), 0);
  }

  std::string problems(const std::string& script) {
    const Value found = browser.evaluate(script);
    std::string text;
    for (const Value& problem : *found.array()) text += *problem.string() + '\n';
    return text;
  }
  void expectReadable(const std::string& what) {
    EXPECT_EQ(problems(paleTexts), "") << what;
    EXPECT_EQ(problems(cutOff), "") << what;
  }
  void takePicture() {
    const std::string name = GetParam().name();
    // Two frames, so that all of it has been drawn; no field shows a blinking mark.
    browser.evaluate(
        "document.activeElement?.blur(); new Promise((resolve) => "
        "requestAnimationFrame(() => requestAnimationFrame(resolve)))");
    const std::string png = inFewColours(browser.screenshot());
    EXPECT_TRUE(png.starts_with("\x89PNG")) << name;
    EXPECT_LT(png.size(), mostBytes) << name;
    if (const char* folder = std::getenv("CORVID_SCREENSHOTS"))
      std::ofstream(fmt::format("{}/{}.png", folder, name), std::ios::binary) << png;
  }
};

TEST_P(PageLooksTest, IsReadable) {
  const bool isNarrow = GetParam().width < 900;
  expectReadable("arrivals");
  takePicture();
  if (!isNarrow) browser.click(".bag");  // shows what the storebag says
  for (const std::string panel : {"sessions", "faults", "storebags"}) {
    if (isNarrow) browser.click("[data-show=" + panel + "]");
    if (panel == "storebags" && isNarrow) browser.click(".bag");
    ASSERT_TRUE(
        browser.awaits("document.querySelector('#" + panel + "').getClientRects().length > 0"));
    expectReadable(panel);
  }
}

INSTANTIATE_TEST_SUITE_P(, PageLooksTest,
                         testing::Values(Look{400, 800, "light"}, Look{400, 800, "dark"},
                                         Look{800, 900, "light"}, Look{1000, 900, "dark"},
                                         Look{1600, 1000, "light"}, Look{1600, 1000, "dark"}),
                         [](const auto& one) {
                           return fmt::format("At{}{}", one.param.width, one.param.scheme);
                         });

}  // namespace
}  // namespace corvid::lab
