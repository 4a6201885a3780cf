#include "tests/gateway/GatewayFixture.h"
#include "tools/Gzip.h"

namespace corvid::fleet {
namespace {

using LogDataPostTest = GatewayTest;

TEST_F(LogDataPostTest, GoesIntoAStreamOfItsOwnAndIsToldWhere) {
  start();
  const auto got = post(port, "/v1/logs", logData(), {"Content-Type: application/octet-stream"});
  ASSERT_TRUE(got);
  EXPECT_EQ(got->status, 200);
  const LogMessage message = log.messages().at(0);
  EXPECT_EQ(message.stream, "logs");
  EXPECT_EQ(message.body, logData());
  EXPECT_EQ(got->body, "logs/" + message.id + "\n");
}

TEST_F(LogDataPostTest, IsToldTheSamePlaceAgain) {
  start();
  const auto first = post(port, "/v1/logs", logData());
  EXPECT_EQ(post(port, "/v1/logs", gzip(logData()), {"Content-Encoding: gzip"})->body, first->body);
  EXPECT_EQ(log.messages().size(), 1u);
}

TEST_F(LogDataPostTest, AnythingElseIsRefused) {
  start();
  for (const std::string& body : {std::string(), std::string("bplist00"), std::string(onePost)})
    EXPECT_EQ(post(port, "/v1/logs", body)->status, 400);
  EXPECT_EQ(settled(Rule::noLogData), 3u);
}

}  // namespace
}  // namespace corvid::fleet
