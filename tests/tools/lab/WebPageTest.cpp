// The page's server as browsers and others meet it; what the page does with it is tried in page/.
#include <gmock/gmock.h>

#include <thread>

#include "tests/support/Waiting.h"
#include "tests/tools/lab/LabFixture.h"

namespace corvid::lab {
namespace {

using testing::HasSubstr;
using testing::Not;

class WebPageTest : public testing::Test {
 protected:
  std::string page(const std::string& target = "/") const {
    const std::string url = *stringAt(lab->addresses(), "web");
    return url.substr(0, url.size() - 1) + target;
  }
  std::string origin() const { return page(""); }
  // What the stream says in so many milliseconds.
  std::string stream(std::chrono::milliseconds time, const std::vector<std::string>& headers = {}) {
    Peer viewer("");
    viewer.timeout = time;
    return viewer.get(page("/feed"), nullptr, headers).body;
  }
  Got planFault(const std::string& plan, const std::vector<std::string>& headers) {
    return browser.post(page("/fault"), plan, headers);
  }

  ScratchLab root;
  std::optional<Lab> lab{std::in_place, root.path(), Lab::Options{.hasPage = true}};
  Peer peer{root.path("lab/tls/ca.pem")};
  Peer browser{""};
};

constexpr const char* fault = R"({"server":"events","status":503,"times":-1})";

TEST_F(WebPageTest, ServesTheFilesAsTheyStandInTheSource) {
  const std::pair<std::string, std::string> files[] = {
      {"index.html", "text/html; charset=utf-8"},
      {"lab.css", "text/css; charset=utf-8"},
      {"lab.js", "text/javascript; charset=utf-8"},
      {"arrivals.js", "text/javascript; charset=utf-8"},
      {"icon.svg", "image/svg+xml; charset=utf-8"}};
  for (const auto& [file, type] : files) {
    const Got got = browser.get(page(file == "index.html" ? "/" : "/" + file));
    EXPECT_EQ(got.status, 200) << file;
    EXPECT_EQ(got.body, contentOf(CORVID_WEB_FOLDER "/" + file)) << file;
    EXPECT_THAT(got.head, HasSubstr("Content-Type: " + type + "\r\n"));
  }
  EXPECT_EQ(browser.get(page("/other")).status, 404);
  EXPECT_EQ(browser.post(page("/"), "{}").status, 405);
}

TEST_F(WebPageTest, MayLoadNothingButItsOwnAndBeFramedByNobody) {
  for (const char* target : {"/", "/lab.js", "/storebags/lumen", "/other"}) {
    const std::string head = browser.get(page(target)).head;
    EXPECT_THAT(head,
                HasSubstr("Content-Security-Policy: default-src 'none'; script-src 'self'; "));
    EXPECT_THAT(head, HasSubstr("frame-ancestors 'none'; require-trusted-types-for 'script'"));
    EXPECT_THAT(head, HasSubstr("X-Frame-Options: DENY\r\n"));
    EXPECT_THAT(head, HasSubstr("X-Content-Type-Options: nosniff\r\n"));
    EXPECT_THAT(head, HasSubstr("Cross-Origin-Resource-Policy: same-origin\r\n"));
    EXPECT_THAT(head, Not(HasSubstr("Access-Control")));
  }
}

TEST_F(WebPageTest, ItsOwnPagePlansFaults) {
  EXPECT_EQ(planFault(fault, {"Origin: " + origin()}).body, "planned\n");
  EXPECT_EQ(peer.post(*stringAt(lab->addresses(), "events"), "{}").status, 503);
  const Got refused = planFault(R"({"server":"events","lose":1})", {"Origin: " + origin()});
  EXPECT_EQ(refused.status, 400);
  EXPECT_THAT(refused.body, HasSubstr("there is no fault \"lose\""));
}

TEST_F(WebPageTest, PagesOfOthersPlanNothing) {
  const std::string port = origin().substr(origin().rfind(':'));
  const std::vector<std::vector<std::string>> others = {
      {"Origin: http://evil.example"},
      {"Origin: null"},
      {"Origin: http://localhost"},
      {"Origin: https://localhost" + port},
      {"Origin: http://127.0.0.1" + port},  // another one than the Host
      {"Origin: " + origin(), "Origin: http://evil.example"},
      {"Origin: http://evil.example" + port, "Host: evil.example" + port},
      {"Origin: http://localhost:1"},
      {"Origin: " + origin(), "Sec-Fetch-Site: cross-site"},
      {"Origin: " + origin(), "Sec-Fetch-Site: same-site", "Sec-Fetch-Mode: navigate"}};
  for (const auto& headers : others) {
    EXPECT_EQ(planFault(fault, headers).status, 403) << headers[0];
    EXPECT_EQ(browser.post(*stringAt(lab->addresses(), "control"), fault, headers).status, 403)
        << headers[0];
  }
  EXPECT_EQ(planFault(fault, {}).status, 405) << "a browser says where a POST comes from";
  EXPECT_TRUE(lab->faults().plans().empty());
}

TEST_F(WebPageTest, APortThatIsForwardedLeadsHereToo) {
  EXPECT_EQ(browser.get(page(), nullptr, {"Host: localhost:8080"}).status, 200);
  EXPECT_EQ(planFault(fault, {"Host: localhost:8080", "Origin: http://localhost:8080"}).status,
            200);
}

TEST_F(WebPageTest, PagesOfOthersReadNothing) {
  for (const char* target : {"/feed", "/storebags/lumen", "/", "/lab.js"}) {
    EXPECT_EQ(browser.get(page(target), nullptr, {"Host: evil.example"}).status, 403) << target;
    EXPECT_EQ(browser.get(page(target), nullptr, {"Origin: http://evil.example"}).status, 403);
    EXPECT_EQ(browser.get(page(target), nullptr, {"Sec-Fetch-Site: cross-site"}).status, 403);
  }
  EXPECT_EQ(browser.get(page(), nullptr, {"Sec-Fetch-Site: cross-site", "Sec-Fetch-Mode: navigate"})
                .status,
            200)
      << "a link";
}

TEST_F(WebPageTest, TheStreamBeginsWithHowThingsStand) {
  peer.post(*stringAt(lab->addresses(), "events"), R"({"events":[]})");
  const std::string told = stream(std::chrono::milliseconds(300));
  EXPECT_THAT(told, HasSubstr("event: hello\ndata: {\"run\":\""));
  EXPECT_THAT(told, HasSubstr("event: lab\ndata: {\"root\":\"" + root.path()));
  EXPECT_THAT(told, HasSubstr("event: faults\ndata: {}"));
  EXPECT_THAT(
      told,
      HasSubstr(
          "event: storebags\ndata: {\"storebags\":[{\"name\":\"cadence\",\"version\":\"1.0.0-cadence\",\"backends\":[\"httpPost\"],"));
  EXPECT_THAT(told, HasSubstr("\"server\":\"events\",\"target\":\"/events\""));
  const std::size_t id = told.find("id: ");
  const std::string last = told.substr(id + 4, told.find('\n', id) - id - 4);
  EXPECT_THAT(stream(std::chrono::milliseconds(300), {"Last-Event-ID: " + last}),
              Not(HasSubstr("event: entry")));
}

TEST_F(WebPageTest, AViewerTooManyIsTurnedAwayUntilOneGoes) {
  {
    std::vector<std::jthread> viewers;
    for (int i = 0; i < WebPage::mostViewers; ++i)
      viewers.emplace_back([&] { stream(std::chrono::seconds(3)); });
    EXPECT_TRUE(waitUntil([&] {
      Peer one("");
      one.timeout = std::chrono::milliseconds(100);
      return one.get(page("/feed")).status == 503;
    }));
  }
  EXPECT_TRUE(waitUntil(
      [&] { return stream(std::chrono::milliseconds(300)).find("hello") != std::string::npos; }));
}

TEST_F(WebPageTest, ALabEndsWhileItIsWatched) {
  std::jthread viewer([url = page("/feed")] { Peer("").get(url); });
  ASSERT_TRUE(waitUntil(
      [&] { return stream(std::chrono::milliseconds(200)).find("hello") != std::string::npos; }));
  const auto before = std::chrono::steady_clock::now();
  lab.reset();
  EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
}

TEST_F(WebPageTest, StorebagsAreShownAsTheyWouldBeSigned) {
  const Got got = browser.get(page("/storebags/lumen"));
  EXPECT_THAT(got.body,
              HasSubstr("\"post_url\": \"" + *stringAt(lab->addresses(), "events") + "\""));
  EXPECT_THAT(browser.get(page("/storebags/none")).body, HasSubstr("there is no storebag none"));
  EXPECT_THAT(browser.get(page("/storebags/..%2f..%2fx")).body, HasSubstr("there is no storebag"));
}

TEST(LabWithoutAPage, HasNoAddressForOne) {
  const ScratchLab root;
  const Lab lab(root.path());
  EXPECT_FALSE(lab.addresses().contains("web"));
}

}  // namespace
}  // namespace corvid::lab
