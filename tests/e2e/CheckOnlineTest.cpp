// `corvidd --check-config --online` against real servers, and the examples that are installed.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>
#include <vector>

#include "base/Describe.h"
#include "base/Reading.h"
#include "platform/data/JSON.h"
#include "platform/data/PropertyList.h"
#include "tests/e2e/LabFixture.h"
#include "tests/support/SigningKeys.h"
#include "tests/support/ToolProcess.h"

namespace corvid {
namespace {

class OnlineCheck : public LabFixture {
 protected:
  OnlineCheck() {
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG", "TZ"}) unsetenv(name);
  }
  // Asks anew.
  void check(std::vector<std::string> more = {"--online"}) {
    more.insert(more.begin(), {"--root", _root.path(), "--check-config", "--json"});
    const ToolResult result = runTool(CORVIDD_PROGRAM, more);
    const auto found = parseJSON(result.output);
    ASSERT_TRUE(found) << result.output << result.errors;
    status = result.status.value_or(-1);
    findings = *arrayAt(*found.value().dictionary(), "findings");
  }
  // How many findings of that kind say something that begins so of a path that ends so.
  std::size_t count(std::string_view kind, std::string_view pathsEnd, std::string_view beginning) {
    std::size_t number = 0;
    for (const Value& one : findings)
      number += *stringAt(*one.dictionary(), "kind") == kind &&
                stringAt(*one.dictionary(), "path")->ends_with(pathsEnd) &&
                stringAt(*one.dictionary(), "what")->starts_with(beginning);
    return number;
  }
  std::string server() const {
    const std::string url = urlOf("events");
    return url.substr(0, url.find('/', 8) + 1);
  }
  std::string example(std::string_view name) const {
    return contentOf(fmt::format("{}/{}.plist", CORVID_EXAMPLES_FOLDER, name));
  }

  int status = -1;
  Array findings;
};

TEST_F(OnlineCheck, FetchesEachStorebagAndConnectsToEachServer) {
  check();
  EXPECT_EQ(status, 0) << description(findings);
  for (const char* name :
       {"lumen", "tessel", "parlor", "orrery", "cadence", "quill", "ledger", "folio", "reel"})
    EXPECT_EQ(count("ok", fmt::format("/bags/birch/{}?version=8.1", name),
                    fmt::format("storebag {}, version 1.0.0-{}, is verified", name, name)),
              1u)
        << name;
  EXPECT_EQ(count("ok", server(), "can be connected to"), 1u);
  EXPECT_TRUE(received().empty()) << "nothing is sent";
}

TEST_F(OnlineCheck, AsksNobodyWithoutTheOption) {
  check({});
  EXPECT_EQ(_lab.storebags().connectionsAccepted(), 0u);
}

TEST_F(OnlineCheck, TakesAStorebagThatIsNotThereAsANote) {
  plan("storebags", {{"status", 404}, {"times", 1}});
  check();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(count("note", "?version=8.1", "the server has no storebag "), 1u);
}

TEST_F(OnlineCheck, FindsWhatDoesNotVerifyWrong) {
  plan("storebags", {{"body", "<html>sign in</html>"}, {"times", 1}});
  check();
  EXPECT_EQ(status, 1);
  const std::string refusal = "the answer, 200, is no storebag for this device: ";
  EXPECT_EQ(count("WRONG", "?version=8.1", refusal), 1u);
  const std::string other = signingKeyFile("strange");
  ASSERT_EQ(std::system(fmt::format("openssl pkey -in {} -pubout -outform DER -out {}", other,
                                    _root.path("usr/share/corvid/publicKey.der"))
                            .c_str()),
            0);
  check();
  EXPECT_EQ(count("WRONG", "?version=8.1", refusal + "no key of this device verifies"), 9u);
}

TEST_F(OnlineCheck, FindsAServerThatIsNotThereWrong) {
  publish("lumen", storebagPostingTo("https://localhost:1/events"));
  check();
  EXPECT_EQ(status, 1);
  EXPECT_EQ(count("WRONG", "https://localhost:1/", "cannot be connected to: "), 1u);
  publish("lumen", storebagPostingTo("http://localhost/events"));
  check();
  EXPECT_EQ(count("WRONG", "http://localhost/events", "is an address that no daemon takes"), 1u);
  _root.write("etc/corvid/deployment.plist",
              writeXMLPropertyList(Dictionary{{"ProductionStorebagHost", "localhost:1"}}));
  check();
  EXPECT_EQ(count("WRONG", "?version=8.1", "cannot be fetched: "), 9u);
}

TEST_F(OnlineCheck, FindsAStorebagWithoutTheEnvironmentOrAVersionWrong) {
  publish("lumen", {{"version", "1"}, {"development", Dictionary{}}});
  publish("reel", {{"release", Dictionary{}}});
  check();
  EXPECT_EQ(count("WRONG", "/lumen?version=8.1", "has no section for the environment release"), 1u);
  EXPECT_EQ(count("WRONG", "/reel?version=8.1", "has no version"), 1u);
}

TEST_F(OnlineCheck, FindsAPortThatTheDeploymentDoesNotOpenWrong) {
  Dictionary deployment = readDictionaryFile(_root.path("etc/corvid/deployment.plist")).value();
  deployment.set("TCPPorts", Array{});
  _root.write("etc/corvid/deployment.plist", writeXMLPropertyList(deployment));
  check();
  EXPECT_EQ(count("WRONG", server(), "the port "), 1u);
}

TEST_F(OnlineCheck, FindsNothingWrongWithTheExamples) {
  _root.write("etc/corvid/deployment.plist", example("deployment"));
  _root.write("etc/corvid/device.plist", example("device"));
  _root.remove("etc/corvid/entitlements.d/lab.plist");
  _root.write("etc/corvid/entitlements.d/50-example.plist", example("entitlement"));
  check({});
  EXPECT_EQ(status, 0) << description(findings);
  EXPECT_EQ(count("ok", "/deployment.plist", "storebags come from storebags.example.com"), 1u);
  EXPECT_EQ(count("ok", "/device.plist", "answers for 5 keys"), 1u);
  EXPECT_EQ(count("ok", "/50-example.plist", "lets those connect who match"), 1u);
}

TEST_F(OnlineCheck, FindsNothingWrongWithTheExampleOfAStorebag) {
  std::string text = example("storebag");
  const std::string placeholder = "https://collector.example.com/";
  for (auto at = text.find(placeholder); at != text.npos; at = text.find(placeholder))
    text.replace(at, placeholder.size(), server());
  const auto storebag = parseDictionary(text);
  ASSERT_TRUE(storebag) << storebag.failure().message;
  publish("lumen", storebag.value());
  check();
  EXPECT_EQ(status, 0) << description(findings);
  EXPECT_EQ(count("ok", "/lumen?version=8.1", "storebag lumen, version 2026.11-1, is verified"),
            1u);
}

}  // namespace
}  // namespace corvid
