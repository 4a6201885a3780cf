// What docs/publishing.md tells authors to do, done with the real tool and watched at a real
// device.
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/Reading.h"
#include "platform/data/PropertyList.h"
#include "tests/e2e/LabFixture.h"
#include "tests/e2e/Operator.h"
#include "tests/support/SigningKeys.h"
#include "tests/support/ToolProcess.h"
#include "tools/lab/HTTPServer.h"
#include "tools/lab/TLSIdentity.h"
#include "tools/signing/SigningKey.h"

namespace corvid {
namespace {

namespace fs = std::filesystem;
using testing::StartsWith;

class Publishing : public LabFixture {
 protected:
  void SetUp() override {
    _root.write("var/lib/corvidd/Preferences/com.halcyon.corvid.plist",
                writeXMLPropertyList(Dictionary{{"corvid_storebag_url", _server.url("")}}));
    fs::create_directories(_root.path("srv"));
  }
  // Adds to the device's deployment.plist.
  void deploy(const std::string& key, Value value) {
    const std::string file = "etc/corvid/deployment.plist";
    Dictionary deployment = *parsePropertyList(contentOf(_root.path(file))).value().dictionary();
    deployment.set(key, std::move(value));
    _root.write(file, writeXMLPropertyList(deployment));
  }

  // Signs with these keys what stands at the server from then on.
  void publish(const std::vector<std::string>& keys, const std::string& version, int serial = 0) {
    Dictionary storebag = storebagPostingTo(urlOf("events"));
    storebag.set("version", version);
    storebag.set("serial", serial);
    std::vector<std::string> arguments{"sign"};
    for (const std::string& key : keys)
      arguments.insert(arguments.end(), {"--key", signingKeyFile(key)});
    arguments.insert(arguments.end(),
                     {_root.write("storebag.plist", writeXMLPropertyList(storebag)), "-o",
                      _root.path("srv/lumen")});
    const ToolResult result = runTool(CORVID_STOREBAG_PROGRAM, arguments);
    ASSERT_EQ(result.status, 0) << result.errors;
  }
  static signing::SigningKey key(const std::string& name) {
    return signing::SigningKey::open(signingKeyFile(name));
  }

  // What the device says of its storebag after it has asked for it anew for a client, which reports
  // whatever came of that.
  Dictionary storebagOfDevice() {
    const Operator looks(_root.path());
    EXPECT_EQ(looks.ctl({"refresh"}).status, 0);
    TestClient client(_root.path());
    EXPECT_EQ(client.configure({.clientType = 5}).text(), "httpPost");
    const std::string mark = fmt::format("fetch {}", ++_fetches);
    EXPECT_EQ(client.send(mark).text(), "none");
    EXPECT_TRUE(waitUntil([&] { return arrivals(mark) == 1; })) << _daemon->standardError();
    const Dictionary status = looks.status();
    return *arrayAt(status, "storebags")->at(0).dictionary();
  }
  void expectTaken(const std::string& version, const std::string& keyName) {
    SCOPED_TRACE(version);
    const Dictionary storebag = storebagOfDevice();
    EXPECT_EQ(*storebag.find("version"), Value(version));
    EXPECT_EQ(*storebag.find("keyID"), Value(key(keyName).id()));
    EXPECT_EQ(*storebag.find("lastError"), Value());
  }
  // The device goes on with what it has.
  void expectRefused(const std::string& reason, const std::string& versionInForce) {
    const Dictionary storebag = storebagOfDevice();
    EXPECT_EQ(*storebag.find("version"), Value(versionInForce));
    const std::string* error = stringAt(storebag, "lastError");
    ASSERT_TRUE(error);
    EXPECT_THAT(*error, StartsWith(reason));
  }

 private:
  int _fetches = 0;
  lab::HTTPServer _server{
      [this](const lab::Request& request) {
        return lab::Answer{
            .headers = {{"Cache-Control", "max-age=3600"}},
            .body =
                contentOf(_root.path("srv" + request.target.substr(0, request.target.find('?'))))};
      },
      {lab::TLSIdentity(_lab.root().tlsFolder()).server()}};
};

// "trusted" is the key that devices have at first.
TEST_F(Publishing, AChangeOfTheKeyLeavesNoTimeInWhichDevicesTakeNothing) {
  publish({"trusted"}, "1");
  startDaemon();
  expectTaken("1", "trusted");
  // The new key is made, and the storebag signed with both, before any device has the new one.
  publish({"trusted", "strange"}, "2");
  expectTaken("2", "trusted");
  _root.write("etc/corvid/keys.d/new.der", key("strange").publicKeyDER());
  expectTaken("2", "trusted");
  publish({"strange"}, "3");
  expectTaken("3", "strange");
  // The old key is taken away, and what it signs is refused from then on.
  _root.remove("usr/share/corvid/publicKey.der");
  expectTaken("3", "strange");
  publish({"trusted"}, "4");
  expectRefused("storebagUnverified", "3");
}

TEST_F(Publishing, ABadStorebagIsRolledBackWithAHigherSerial) {
  deploy("RefuseOlderStorebags", true);
  publish({"trusted"}, "good", 5);
  startDaemon();
  expectTaken("good", "trusted");
  publish({"trusted"}, "bad", 6);
  expectTaken("bad", "trusted");
  publish({"trusted"}, "good", 5);
  expectRefused("storebagOlder", "bad");
  publish({"trusted"}, "good again", 7);
  expectTaken("good again", "trusted");
}

}  // namespace
}  // namespace corvid
