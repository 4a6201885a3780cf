// An upload while its server takes its time.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>

#include "backends/upload/UploadBackend.h"
#include "tests/fakes/FakeGrantedFile.h"
#include "tests/fakes/TestIdentity.h"
#include "tests/fakes/TestPlatform.h"
#include "tests/support/Waiting.h"

namespace corvid {
namespace {

class UploadThreadsTest : public testing::Test {
 protected:
  std::shared_ptr<UploadBackend> make() const {
    const Dictionary profile{{"post_url", "https://up.test/put"}};
    return UploadBackend::initWithName("uploadServer", &profile, shared());
  }
  // Until so many exchanges wait for their reply; false where they do not come.
  bool awaitWaiting(std::size_t count) const {
    return waitUntil([&] { return platform.http->exchangesUnderWay() == count; });
  }

  TestPlatform platform;
};

TEST_F(UploadThreadsTest, TheCallerWaitsForTheReply) {
  platform.http->hold();
  const auto backend = make();
  const auto file = std::make_shared<FakeGrantedFile>("content");
  std::atomic<bool> isOver = false;
  std::thread client([&] {
    const ExtensionTokens::Grant grant(*platform.extensionTokens, file);
    EXPECT_TRUE(backend->uploadFileAtPath("/x", grant.token()));
    isOver = true;
  });
  ASSERT_TRUE(awaitWaiting(1));
  EXPECT_FALSE(isOver);
  EXPECT_EQ(platform.extensionTokens->usage().handles, 1u);
  // Of the memory only what is being sent is still taken.
  EXPECT_EQ(platform.extensionTokens->usage().claimed, platform.http->requests()[0].body.size());
  // Nothing of the backend is locked meanwhile.
  backend->setUploadURL("https://up.test/elsewhere");
  backend->setState(BackendState::disabled);
  platform.http->completeNext(FakeHTTPClient::response(200, "success"));
  client.join();
  EXPECT_EQ(file->removals, 1);
  EXPECT_EQ(platform.extensionTokens->usage().handles, 0u);
}

TEST_F(UploadThreadsTest, UploadsOfSeveralClientsWaitSideBySide) {
  platform.http->hold();
  constexpr int clients = 4;
  std::atomic<int> removed = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < clients; ++i)
    threads.emplace_back([&] {
      const auto file = std::make_shared<FakeGrantedFile>("content");
      const ExtensionTokens::Grant grant(*platform.extensionTokens, file);
      EXPECT_TRUE(make()->uploadFileAtPath("/x", grant.token()));
      removed += file->removals;
    });
  ASSERT_TRUE(awaitWaiting(clients));
  for (int i = 0; i < clients; ++i)
    platform.http->completeNext(FakeHTTPClient::response(200, i % 2 == 0 ? "success" : "failure"));
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(removed, clients / 2);
  EXPECT_EQ(platform.extensionTokens->usage().handles, 0u);
}

}  // namespace
}  // namespace corvid
