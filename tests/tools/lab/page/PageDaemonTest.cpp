// The whole way: a client's events through the real daemon onto the page, and a fault from the page
// back to the client.
#include "tests/e2e/LabFixture.h"
#include "tests/tools/lab/page/Browser.h"

namespace corvid {
namespace {

class PageDaemonTest : public LabFixture {
 protected:
  PageDaemonTest() : LabFixture(lab::Lab::Options{.hasPage = true}) {}

  void SetUp() override {
    _browser.open(urlOf("web"));
    ASSERT_TRUE(_browser.awaits("document.querySelector('#connection.live')"));
    startDaemon();
  }
  void TearDown() override {
    EXPECT_EQ(_browser.complaints(), std::vector<std::string>());
    LabFixture::TearDown();
  }

  bool awaitsText(const std::string& place, const std::string& text) {
    return _browser.awaits("document.querySelector('" + place + "').textContent.includes('" + text +
                           "')");
  }

  lab::Browser _browser;
};

TEST_F(PageDaemonTest, AClientsEventsSessionAndStorebagAreShown) {
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = 5, .batches = true, .clientName = "Player"}).text(),
            "httpPost");
  ASSERT_EQ(client.send("from afar").text(), "none");
  ASSERT_EQ(client.flush().text(), "flushed");
  EXPECT_TRUE(awaitsText("#list", "mark=from afar"));
  EXPECT_TRUE(awaitsText("#chains h3", "Player · Service"));
  EXPECT_TRUE(awaitsText(".session", "2 events")) << "the start message and this one";
  EXPECT_TRUE(
      _browser.awaits("[...document.querySelectorAll('.bag')].filter((bag) => "
                      "bag.innerText.includes('200 ')).length === 1"));
}

TEST_F(PageDaemonTest, AFaultThatIsSwitchedOnReachesTheClient) {
  TestClient client(_root.path());
  ASSERT_EQ(client.configure({.clientType = 5, .batches = true, .clientName = "Player"}).text(),
            "httpPost");
  ASSERT_EQ(client.flush().text(), "flushed");
  _browser.click("[role=switch][aria-label=\"Another status\"]");
  ASSERT_TRUE(_browser.awaits(
      "document.querySelector('[aria-label=\"Another status\"]').getAttribute('aria-checked') === 'true'"));
  ASSERT_EQ(client.send("refused").text(), "none");
  EXPECT_NE(client.flush().text(), "flushed");
  EXPECT_TRUE(
      _browser.awaits("[...document.querySelectorAll('#list .arrival')].some((row) => "
                      "row.textContent.endsWith('fault503'))"));
}

}  // namespace
}  // namespace corvid
