// Storebags at nginx, with the configuration that is shipped as an example.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>

#include "config/StorebagFetch.h"
#include "platform/http/CurlHTTPClient.h"
#include "platform/system/SystemClock.h"
#include "tests/support/Loopback.h"
#include "tests/support/Waiting.h"
#include "tests/tools/storebag/SigningFolder.h"
#include "tools/lab/TLSIdentity.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

// `text` with the only `old` in it replaced.
std::string with(std::string text, const std::string& old, const std::string& another) {
  const std::size_t at = text.find(old);
  EXPECT_TRUE(at != text.npos && text.find(old, at + 1) == text.npos) << old;
  return at == text.npos ? text : text.replace(at, old.size(), another);
}

class Nginx : public testing::Test, protected SigningFolder {
 protected:
  void SetUp() override {
    std::string server = contentOf(CORVID_EXAMPLE_NGINX);
    server = with(server, "443", fmt::format("127.0.0.1:{}", _port));
    server = with(server, "/etc/ssl/certs/storebags.example.com.pem",
                  _identity.server().certificateFile);
    server = with(server, "/etc/ssl/private/storebags.example.com.key", _identity.server().keyFile);
    server = with(server, "alias /srv/storebags/;", "alias " + folder.path("srv/") + ";");
    std::string temporary;
    for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
      temporary += fmt::format("{}_temp_path {};\n", kind, folder.path(kind));
    const std::string file = folder.write(
        "nginx.conf", fmt::format("daemon off;\nmaster_process off;\npid {};\nerror_log stderr;\n"
                                  "events {{}}\nhttp {{\naccess_log off;\ngzip on;\n"
                                  "gzip_types *;\ngzip_min_length 1;\n{}{}}}\n",
                                  folder.path("pid"), temporary, server));
    fs::create_directory(folder.path("srv"));
    _process.emplace("/usr/sbin/nginx",
                     std::vector<std::string>{"-c", file, "-p", folder.path(), "-e", "stderr"});
    ASSERT_TRUE(waitUntil([&] { return isOpen(_port); }))
        << "nginx did not come up; scripts/setup installs it";
    publish();
  }

  void publish() {
    EXPECT_EQ(printedBy({"sign", "--key", privateKey("trusted"), storebag, "-o", _published}), "");
  }
  std::string url() const {
    return fmt::format("https://localhost:{}/bags/birch/tessel?version=8.0", _port);
  }
  HTTPResponse answerTo(HTTPRequest request) {
    HTTPOutcome outcome = performAndWait(_client, std::move(request));
    EXPECT_TRUE(outcome.response) << outcome.error->description;
    return outcome.response.value_or(HTTPResponse());
  }
  // What a device gets that has what `lastModified` belongs to, or nothing.
  HTTPResponse fetch(const std::optional<std::string>& lastModified = {}) {
    return answerTo(storebagRequest(url(), lastModified));
  }

  const std::uint16_t _port = freePorts(1).front();
  const std::string _published = folder.path("srv/tessel");
  const lab::TLSIdentity _identity{folder.path("tls")};
  CurlHTTPClient _client{std::make_shared<SystemClock>(), {.caFile = _identity.caFile()}};
  std::optional<ToolProcess> _process;
};

TEST_F(Nginx, SendsWhatWasSignedWithItsAgeAndTime) {
  const HTTPResponse got = fetch();
  EXPECT_EQ(got.status, 200);
  EXPECT_EQ(got.body, contentOf(_published));
  EXPECT_EQ(maxAgeFromCacheControl(got.header("Cache-Control").value_or("max-age=1")), 86400);
  EXPECT_NE(got.header("Last-Modified"), std::nullopt);
  EXPECT_NE(got.header("ETag"), std::nullopt);
  EXPECT_EQ(got.header("Content-Type"), "application/x-plist");
  EXPECT_THAT(printedBy({"verify", "--public-key", publicKey("trusted"), "--ca-file",
                         _identity.caFile(), url()}),
              HasSubstr("version 7.1"));
}

TEST_F(Nginx, SendsNoBodyToADeviceThatHasTheStorebag) {
  const std::string lastModified = *fetch().header("Last-Modified");
  const HTTPResponse again = fetch(lastModified);
  EXPECT_EQ(again.status, 304);
  EXPECT_EQ(again.body, "");
  // Without these a device would take it for a storebag that is none, and forget its age.
  EXPECT_EQ(again.header("Last-Modified"), lastModified);
  EXPECT_EQ(again.header("Cache-Control"), "max-age=86400");
}

TEST_F(Nginx, SendsAStorebagThatWasRolledBackThoughItIsOlder) {
  const std::string lastModified = *fetch().header("Last-Modified");
  fs::last_write_time(_published, fs::last_write_time(_published) - std::chrono::hours(1));
  EXPECT_EQ(fetch(lastModified).status, 200);
}

TEST_F(Nginx, PacksNothingAndListsNothing) {
  HTTPRequest asking = storebagRequest(url(), std::nullopt);
  asking.headers.emplace_back("Accept-Encoding", "gzip");
  const HTTPResponse got = answerTo(asking);
  EXPECT_EQ(got.header("Content-Encoding"), std::nullopt);
  EXPECT_EQ(got.body, contentOf(_published));
  const std::string folderURL = fmt::format("https://localhost:{}/bags/birch/", _port);
  EXPECT_EQ(answerTo({.url = folderURL}).status, 403);
  EXPECT_EQ(answerTo({.url = folderURL + "lumen"}).status, 404);
  EXPECT_EQ(answerTo({.method = "POST", .url = folderURL + "tessel"}).status, 403);
}

}  // namespace
}  // namespace corvid
