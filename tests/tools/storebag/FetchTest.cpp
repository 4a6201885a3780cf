// Storebags that are read from a server.
#include <gmock/gmock.h>

#include <mutex>

#include "platform/data/JSON.h"
#include "tests/tools/storebag/SigningFolder.h"
#include "tools/lab/HTTPServer.h"
#include "tools/lab/TLSIdentity.h"
#include "tools/signing/Envelope.h"

namespace corvid {
namespace {

using testing::HasSubstr;

class StorebagFetch : public testing::Test, protected SigningFolder {
 protected:
  StorebagFetch() {
    const auto key = signing::SigningKey::open(privateKey("trusted"));
    _answer.body = signing::envelope({&key, 1}, contentOf(storebag));
  }

  // Verifies what is at the server, whose certificate `ca` vouches for.
  ToolResult verify(const std::string& ca) {
    return storebagTool(
        {"verify", "--public-key", publicKey("trusted"), "--ca-file", ca, _server.url("/tessel")});
  }

  const lab::TLSIdentity _identity{folder.path("tls")};
  lab::Answer _answer;
  lab::HTTPServer _server{[this](const lab::Request&) { return _answer; },
                          {.tls = _identity.server()}};
};

TEST_F(StorebagFetch, AURLIsVerifiedAndShownAsAFileIs) {
  const ToolResult result = verify(_identity.caFile());
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output, _server.url("/tessel") + ": verified by the key " + keyID("trusted") +
                               ", version 7.1\n");
  EXPECT_EQ(printedBy({"show", "--ca-file", _identity.caFile(), _server.url("/tessel")}),
            writeXMLPropertyList(publishedStorebag()));
}

TEST_F(StorebagFetch, AServerThatNobodyVouchesForIsRefused) {
  const lab::TLSIdentity stranger{folder.path("stranger")};
  const ToolResult result = verify(stranger.caFile());
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors,
              HasSubstr("corvid-storebag: " + _server.url("/tessel") + ": storebagUnreachable: "));
  EXPECT_EQ(_server.requestsReceived(), 0u);
}

TEST_F(StorebagFetch, TheStatusOfWhatIsNoStorebagIsSaid) {
  _answer = {.status = 404, .body = "no such thing"};
  const ToolResult result = verify(_identity.caFile());
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr(": storebagMalformed: status 404: "));
  const ToolResult shown =
      storebagTool({"show", "--ca-file", _identity.caFile(), _server.url("/tessel")});
  EXPECT_EQ(shown.status, 1);
  EXPECT_THAT(shown.errors, HasSubstr("/tessel (status 404): "));
}

TEST_F(StorebagFetch, NothingIsFetchedInTheClear) {
  lab::HTTPServer plain{[this](const lab::Request&) { return _answer; }};
  expectFailure({"show", plain.url("/tessel")},
                "a storebag is fetched over https, not from " + plain.url("/tessel") +
                    " (corvid-storebag show --help says more)",
                64);
  EXPECT_EQ(plain.connectionsAccepted(), 0u);
}

TEST_F(StorebagFetch, OthersThanVerifyAndShowTakeFilesOnly) {
  const std::string url = _server.url("/tessel");
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{"lint", url},
        {"explain", url, "--client-type", "tessel"},
        {"test", url, folder.write("tests.json", "[]")},
        {"sign", "--key", privateKey("trusted"), url, "-o", folder.path("out")}})
    expectFailure(arguments, url + ": No such file or directory");
  expectFailure({"diff", url, url}, url + ": No such file or directory", 2);
  EXPECT_EQ(_server.connectionsAccepted(), 0u);
}

TEST_F(StorebagFetch, ACAFileThatCannotBeUsedIsNamed) {
  const std::string missing = folder.path("missing.pem");
  const ToolResult result = verify(missing);
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr(missing));
  EXPECT_EQ(_server.connectionsAccepted(), 0u);
}

}  // namespace
}  // namespace corvid
