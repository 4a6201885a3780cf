// Files from the real client through the real daemon, in its sandbox, to a real server.
#include <fmt/format.h>
#include <gmock/gmock.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "base/Reading.h"
#include "platform/data/PropertyList.h"
#include "tests/e2e/ClientProcess.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;

constexpr int uploadClient = 16;  // its storebag "folio" has an upload server and httpPost

class UploadsEndToEnd : public LabFixture {
 protected:
  void SetUp() override {
    startDaemon();
    configure();
  }
  void configure() {
    client.emplace(_root.path(), std::chrono::seconds(60));
    ASSERT_EQ(client->configure({.clientType = uploadClient}).text(), "httpPost,uploadServer");
  }
  std::string write(const std::string& name, const std::string& content = "content") const {
    _root.write("files/" + name, content);
    return _root.path("files/" + name);
  }
  std::string upload(const std::string& file) { return client->upload(file).text(); }
  // The files that have arrived, as the server wrote them down.
  std::vector<Dictionary> arrived() {
    std::vector<Dictionary> files;
    for (const Dictionary& entry : received())
      if (*stringAt(entry, "server") == "upload") files.push_back(entry);
    return files;
  }
  // Uploads a file while the server answers so; true where the file is kept.
  bool keeps(Dictionary fault) {
    plan("upload", std::move(fault));
    const std::string file = write("log");
    EXPECT_EQ(upload(file), "accepted");
    return fs::exists(file);
  }

  std::optional<TestClient> client;
};

TEST_F(UploadsEndToEnd, AFileArrivesWholeAndIsRemoved) {
  const std::string file = write("call log.txt", "first line\nsecond line\n");
  EXPECT_EQ(upload(file), "accepted");
  EXPECT_FALSE(fs::exists(file));
  const auto files = arrived();
  ASSERT_EQ(files.size(), 1u);
  const Dictionary& query = *dictionaryAt(files[0], "query");
  const std::string uuid = *stringAt(query, "uuid");
  EXPECT_EQ(uuid.size(), 40u);
  EXPECT_EQ(*stringAt(files[0], "target"),
            "/upload?uuid=" + uuid +
                "&sequence=42&description=Parley%20AFRC%20log%20(Uploaded%20by%20Mantle)"
                "&filename=call%20log.txt.gz&raw=true");
  EXPECT_EQ(*stringAt(query, "description"), "Parley AFRC log (Uploaded by Mantle)");
  EXPECT_EQ(*stringAt(*dictionaryAt(files[0], "file"), "content"), "first line\nsecond line\n");
  const Dictionary& headers = *dictionaryAt(files[0], "headers");
  EXPECT_EQ(*stringAt(headers, "Content-Type"), "application/octet-stream");
  EXPECT_EQ(*stringAt(headers, "Content-Encoding"), "gzip");
  EXPECT_TRUE(_daemon->waitForLog("uploadFileAtPath: Uploading file for session 42"));
  EXPECT_TRUE(_daemon->waitForLog("uploadFileWithURL: File upload successful for " + file));
}

TEST_F(UploadsEndToEnd, TheMessageLogIsWrittenUnlessTheDeploymentSwitchesItOff) {
  const std::string folder = _root.path("var/lib/corvidd/Library/Logs/Faultline/Retired");
  _daemon.reset();
  Dictionary deployment = readDictionaryFile(_root.path("etc/corvid/deployment.plist")).value();
  deployment.set("MessageLog", false);
  _root.write("etc/corvid/deployment.plist", writeXMLPropertyList(deployment));
  startDaemon();
  configure();
  EXPECT_EQ(upload(write("quiet")), "accepted");
  EXPECT_FALSE(fs::exists(folder) && !fs::is_empty(folder));
  _daemon.reset();
  deployment.set("MessageLog", true);
  _root.write("etc/corvid/deployment.plist", writeXMLPropertyList(deployment));
  startDaemon();
  configure();
  EXPECT_EQ(upload(write("noted")), "accepted");
  EXPECT_TRUE(waitUntil([&] { return fs::exists(folder) && !fs::is_empty(folder); }));

  const auto bytes = [&] {
    std::uintmax_t sum = 0;
    for (const auto& file : fs::directory_iterator(folder)) sum += file.file_size();
    return sum;
  };
  const std::uintmax_t before = bytes();
  deployment.set("MessageLog", false);
  _root.write("etc/corvid/deployment.plist", writeXMLPropertyList(deployment));
  _daemon->signal(SIGHUP);
  EXPECT_TRUE(_daemon->waitForLog("deployment.plist: read anew"));
  EXPECT_EQ(upload(write("quiet again")), "accepted");
  EXPECT_EQ(bytes(), before);
}

TEST_F(UploadsEndToEnd, EveryNameComesThrough) {
  const std::vector<std::pair<std::string, std::string>> filenames{
      {"it's \"so\"", "it's%20%22so%22.gz"},
      {"gr\xc3\xbc\xc3\x9f", "gr%C3%BC%C3%9F.gz"},
      {"line\nbreak", "line%0Abreak.gz"},
      {"bytes\xff", "bytes%FF.gz"},
      {"100%25", "100%2525.gz"},
      {"a&b=c", "a&b=c.gz"}};
  for (const auto& [name, announced] : filenames) {
    const std::string file = write(name, name);
    EXPECT_EQ(upload(file), "accepted") << name;
    EXPECT_FALSE(fs::exists(file)) << name;
    EXPECT_THAT(*stringAt(arrived().back(), "target"),
                testing::HasSubstr("&filename=" + announced + "&raw=true"));
  }
  // A name cannot write a line of its own into the log.
  EXPECT_EQ(timesLogged("\nbreak"), 0u);
}

TEST_F(UploadsEndToEnd, OnlyAReplyWithSuccessRemovesTheFile) {
  EXPECT_TRUE(keeps({{"body", "failure"}}));
  EXPECT_TRUE(keeps({{"body", ""}}));
  EXPECT_TRUE(keeps({{"body", "SUCCESS"}}));
  EXPECT_TRUE(keeps({{"status", 503}}));
  EXPECT_FALSE(keeps({{"body", "no success at all"}}));
  EXPECT_FALSE(keeps({{"status", 500}, {"body", "{\"success\":false}"}}));
}

TEST_F(UploadsEndToEnd, AReplyThatDoesNotComeWholeKeepsTheFile) {
  EXPECT_TRUE(keeps({{"cutBodyAfter", 10}}));
  EXPECT_TRUE(keeps({{"cutHeadAfter", 10}}));
  EXPECT_TRUE(keeps({{"endless", true}}));
  EXPECT_TRUE(keeps({{"redirect", urlOf("upload")}}));
  EXPECT_EQ(timesLogged("UploadBackend(uploadFileAtPath): post localhost"), 3u);
  EXPECT_EQ(upload(write("log")), "accepted");
}

TEST_F(UploadsEndToEnd, AServerThatIsGoneKeepsTheFile) {
  _lab.reports().stop();
  const std::string file = write("log");
  EXPECT_EQ(upload(file), "accepted");
  EXPECT_TRUE(fs::exists(file));
  EXPECT_TRUE(_daemon->waitForLog("UploadBackend(uploadFileAtPath): post localhost"));
}

TEST_F(UploadsEndToEnd, ALargeFileArrivesWhole) {
  std::string noise;
  std::uint32_t state = 1;
  while (noise.size() < (std::size_t{12} << 20))
    noise.push_back(static_cast<char>((state = state * 1664525 + 1013904223) >> 24));
  EXPECT_EQ(upload(write("large", noise)), "accepted");
  ASSERT_EQ(arrived().size(), 1u);
  EXPECT_EQ(integerAt(*dictionaryAt(arrived()[0], "file"), "size"),
            static_cast<std::int64_t>(noise.size()));
  EXPECT_FALSE(arrived()[0].contains("error"));
}

TEST_F(UploadsEndToEnd, AFilePastTheLimitIsRefusedAtOnce) {
  const std::string file = write("huge");
  fs::resize_file(file, (std::uintmax_t{256} << 20) + 1);
  const TestClient::Outcome outcome = client->upload(file);
  EXPECT_TRUE(outcome.isThere()) << "the library asks nobody";
  EXPECT_EQ(outcome.text(), "too large");
  EXPECT_TRUE(fs::exists(file));
}

TEST_F(UploadsEndToEnd, AFileThatIsReplacedWhileItIsSentStays) {
  plan("upload", {{"delay", 0.5}});
  const std::string file = write("log", "old");
  const TestClient::Outcome outcome = client->upload(file);
  EXPECT_TRUE(waitUntil([&] { return arrived().size() == 1; }));
  fs::rename(write("other", "new"), file);
  EXPECT_EQ(outcome.text(), "accepted");
  EXPECT_TRUE(fs::exists(file));
  EXPECT_EQ(*stringAt(*dictionaryAt(arrived()[0], "file"), "content"), "old");
}

TEST_F(UploadsEndToEnd, ASlowServerDelaysItsOwnClientOnly) {
  admitBystander();
  plan("upload", {{"delay", 3}});
  const auto start = std::chrono::steady_clock::now();
  const TestClient::Outcome outcome = client->upload(write("log"));
  EXPECT_TRUE(waitUntil([&] { return arrived().size() == 1; }));
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(bystanderReports());
  EXPECT_FALSE(outcome.isThere());
  EXPECT_EQ(outcome.text(), "accepted");
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
}

TEST_F(UploadsEndToEnd, AClientThatLeavesIsNoticedWhenTheExchangeEnds) {
  plan("upload", {{"delay", 1}});
  const std::string file = write("log");
  client.reset();
  std::optional<ClientProcess> leaver(_root.path());
  leaver->call({{"call", "setSessionInfo"},
                {"sessionInfo", Dictionary{{"ClientType", uploadClient}, {"SessionID", 77}}}});
  leaver->call({{"call", "startConfig"}});
  const std::size_t before = _daemon->descriptors();
  leaver->send({{"call", "uploadFile"}, {"path", file}});
  EXPECT_TRUE(waitUntil([&] { return arrived().size() == 1; }));
  leaver->kill();
  EXPECT_TRUE(_daemon->waitForLog("uploadFileWithURL: File upload successful for " + file));
  // The session ends: its connection and everything that it held goes.
  EXPECT_TRUE(waitUntil([&] { return _daemon->descriptors() < before; }));
  EXPECT_TRUE(fs::exists(file));  // nobody was there to remove it
}

TEST_F(UploadsEndToEnd, UploadsLeaveNoDescriptorsBehind) {
  EXPECT_EQ(upload(write("log")), "accepted");
  EXPECT_EQ(client->displayURL().text(), urlOf("events"));
  const std::size_t before = _daemon->descriptors();
  for (int i = 0; i < 30; ++i) EXPECT_EQ(upload(write("log")), "accepted");
  EXPECT_EQ(client->displayURL().text(), urlOf("events"));
  EXPECT_LE(_daemon->descriptors(), before + 1);
}

TEST_F(UploadsEndToEnd, AClientWithoutAnUploadServerIsRefused) {
  TestClient other(_root.path());
  ASSERT_EQ(other.configure({.clientType = 5}).text(), "httpPost");
  const std::string file = write("log");
  EXPECT_EQ(other.upload(file).text(), "refused");
  EXPECT_TRUE(fs::exists(file));
  EXPECT_TRUE(_daemon->waitForLog("uploadFileWithURL: File upload failed for " + file));
}

TEST_F(UploadsEndToEnd, ASessionMayUploadBetweenItsEvents) {
  const auto sent = client->send("before", 1);
  const auto uploaded = client->upload(write("log"));
  const auto sentAfter = client->send("after", 1);
  EXPECT_EQ(sentAfter.text(), "none");
  EXPECT_EQ(uploaded.text(), "accepted");
  EXPECT_TRUE(waitUntil([&] { return arrivals("before") == 1 && arrivals("after") == 1; }));
  EXPECT_EQ(arrived().size(), 1u);
}

}  // namespace
}  // namespace corvid
