// A file from the wire to the session: what a client grants, and how it comes to nothing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <thread>

#include "tests/rpc/ServiceFixture.h"
#include "tests/rpc/TestGrant.h"
#include "tests/rpc/WireClient.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

class Uploads : public ServiceFixture {
 protected:
  void SetUp() override {
    std::ofstream(file) << "content";
    delegate->onSession = [this](RecordingSession& session, auto&) {
      session.onUpload = [this](const std::string& token) {
        if (onUpload) onUpload(token);
      };
    };
    start();
  }
  // True where the session has answered that the upload succeeded.
  static bool upload(WireClient& client, std::optional<wire::FileGrant::Client> grant,
                     std::string_view token = {}) {
    auto request = client.session.uploadFileRequest();
    request.setReplyWanted(true);
    request.setFileURL("file:///file");
    request.setExtensionToken({reinterpret_cast<const kj::byte*>(token.data()), token.size()});
    if (grant) request.setFile(*std::move(grant));
    auto response = request.send().wait(client.scope);
    return response.getAnswered() && response.getSuccess();
  }
  kj::Own<TestGrant> grantOf(int descriptor) { return kj::heap<TestGrant>(descriptor, removals); }
  std::vector<RecordingSession::Call> calls(std::size_t connection = 0) {
    return delegate->at(connection).session->calls();
  }
  static std::size_t openDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }

  const std::string file = folder.path() + "/file";
  std::function<void(const std::string&)> onUpload;
  int removals = 0;
};

TEST_F(Uploads, TheTokenStandsForTheFileWhileTheCallRuns) {
  std::string content;
  onUpload = [&](const std::string& token) {
    const auto handle = tokens.consume(token);
    content = handle.read(0, handle.attributes().size).value_or("");
  };
  WireClient client(path);
  const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(upload(client, grantOf(descriptor.get())));
  EXPECT_EQ(content, "content");
  EXPECT_EQ(calls()[0].text, "file:///file");
  EXPECT_EQ(calls()[0].token.size(), 32u);
  EXPECT_EQ(removals, 0);
  EXPECT_EQ(tokens.usage().grants, 0u);
  EXPECT_EQ(tokens.usage().handles, 0u);
}

TEST_F(Uploads, TheClientsOwnTokenIsOverruledByTheGrant) {
  WireClient client(path);
  const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(upload(client, grantOf(descriptor.get()), "chosen"));
  EXPECT_NE(calls()[0].token, "chosen");
}

TEST_F(Uploads, TheFileIsRemovedBeforeTheClientHearsOfTheEnd) {
  onUpload = [&](const std::string& token) {
    tokens.consume(token).remove();
    EXPECT_EQ(removals, 0);
  };
  WireClient client(path);
  const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(upload(client, grantOf(descriptor.get())));
  EXPECT_EQ(removals, 1);
}

TEST_F(Uploads, ARemovalThatFailsChangesNothing) {
  onUpload = [&](const std::string& token) { tokens.consume(token).remove(); };
  WireClient client(path);
  const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  auto grant = grantOf(descriptor.get());
  grant->fails = true;
  EXPECT_TRUE(upload(client, kj::mv(grant)));
  EXPECT_EQ(removals, 1);
  EXPECT_EQ(sendEvent(client, 1, 2), "sent 1");
}

TEST_F(Uploads, AForgedTokenStandsForNothing) {
  onUpload = [&](const std::string& token) {
    EXPECT_FALSE(tokens.consume(token).attributes().isRegularFile);
  };
  WireClient client(path);
  EXPECT_TRUE(upload(client, std::nullopt, "forged"));
  EXPECT_EQ(calls()[0].token, "forged");
}

TEST_F(Uploads, AGrantWithoutADescriptorStandsForNothing) {
  onUpload = [&](const std::string& token) {
    const auto handle = tokens.consume(token);
    EXPECT_FALSE(handle.attributes().isRegularFile);
    handle.remove();
  };
  WireClient client(path);
  EXPECT_TRUE(upload(client, grantOf(-1)));
  EXPECT_EQ(removals, 0);
}

TEST_F(Uploads, ATokenOfAnEarlierCallStandsForNothing) {
  std::vector<bool> granted;
  onUpload = [&](const std::string& token) {
    granted.push_back(tokens.consume(token).attributes().isRegularFile);
  };
  WireClient client(path);
  const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(upload(client, grantOf(descriptor.get())));
  EXPECT_TRUE(upload(client, std::nullopt, calls()[0].token));
  EXPECT_EQ(calls()[1].token, calls()[0].token);
  EXPECT_EQ(granted, (std::vector<bool>{true, false}));
}

// While the owner's call is under way, and even if the token got out.
TEST_F(Uploads, ATokenOfAnotherClientStandsForNothing) {
  std::vector<bool> granted;
  onUpload = [&](const std::string& token) {
    granted.push_back(tokens.consume(token).attributes().isRegularFile);
    if (granted.size() > 1) return;
    std::thread([&] {
      WireClient thief(path);
      EXPECT_TRUE(upload(thief, std::nullopt, token));
    }).join();
    granted.push_back(tokens.consume(token).attributes().isRegularFile);
  };
  WireClient client(path);
  const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(upload(client, grantOf(descriptor.get())));
  EXPECT_EQ(granted, (std::vector<bool>{true, false, true}));
}

TEST_F(Uploads, TheDaemonsOwnObjectIsNoFile) {
  WireClient client(path);
  auto request = client.session.uploadFileRequest();
  request.setFile(client.session.castAs<wire::FileGrant>());
  request.send().wait(client.scope);
  EXPECT_EQ(calls()[0].token, "");
}

TEST_F(Uploads, NoDescriptorStaysBehind) {
  WireClient client(path);
  const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_TRUE(upload(client, grantOf(descriptor.get())));
  const std::size_t before = openDescriptors();
  for (int i = 0; i < 200; ++i) EXPECT_TRUE(upload(client, grantOf(descriptor.get())));
  // What the last call held goes with the client's next message.
  EXPECT_EQ(sendEvent(client, 1, 2), "sent 1");
  EXPECT_LE(openDescriptors(), before + 1);
}

TEST_F(Uploads, AClientThatLeavesDuringItsUploadLeavesNothing) {
  Notice notice;
  std::atomic<bool> isUnderWay = false;
  bool mayEnd = false;
  onUpload = [&](const std::string& token) {
    const auto handle = tokens.consume(token);
    isUnderWay = true;
    EXPECT_TRUE(notice.await([&] { return mayEnd; }));
    EXPECT_EQ(handle.read(0, 7), "content");
    handle.remove();
  };
  {
    const Descriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    WireClient client(path);
    auto request = client.session.uploadFileRequest();
    request.setFile(grantOf(descriptor.get()));
    auto sent = request.send().eagerlyEvaluate(nullptr);
    ASSERT_TRUE(waitUntil([&] {
      client.scope.poll();
      return isUnderWay.load();
    }));
  }
  notice.change([&] { mayEnd = true; });
  EXPECT_TRUE(delegate->awaitInvalidated(0));
  EXPECT_EQ(tokens.usage().grants, 0u);
  EXPECT_EQ(tokens.usage().handles, 0u);
  EXPECT_EQ(removals, 0);
}

}  // namespace
}  // namespace corvid
