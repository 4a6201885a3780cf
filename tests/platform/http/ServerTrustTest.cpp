#include <gtest/gtest.h>

#include <atomic>

#include "platform/http/ServerTrust.h"
#include "tests/platform/http/HTTPClientFixture.h"

namespace corvid {
namespace {

class ConnectionTrial : public HTTPClientFixture, public testing::Test {
 protected:
  ConnectionTrial() : HTTPClientFixture(true) {
    serve([this](const lab::Request&) {
      ++requests;
      return lab::Answer{};
    });
  }
  std::string address() const {
    return "https://localhost:" + std::to_string(server->port()) + "/";
  }
  std::atomic<int> requests = 0;
};

TEST_F(ConnectionTrial, ConnectsAndAsksForNothing) {
  EXPECT_FALSE(tryConnection(address(), identity->caFile(), 5s));
  EXPECT_EQ(server->connectionsAccepted(), 1u);
  EXPECT_EQ(requests, 0);
}

TEST_F(ConnectionTrial, FailsWhereTheServerIsNotTrusted) {
  EXPECT_TRUE(tryConnection(address(), std::nullopt, 5s));
  EXPECT_TRUE(tryConnection("https://127.0.0.1:" + std::to_string(server->port()) + "/",
                            folder.write("empty.pem", ""), 5s));
}

TEST_F(ConnectionTrial, FailsWhereNobodyServes) {
  const std::string nobody = address();
  server.reset();
  const auto failure = tryConnection(nobody, identity->caFile(), 5s);
  ASSERT_TRUE(failure);
  EXPECT_FALSE(failure->message.empty());
  EXPECT_TRUE(tryConnection("https://nowhere.invalid/", identity->caFile(), 5s));
}

}  // namespace
}  // namespace corvid
