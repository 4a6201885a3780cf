// The real corvid-loader between a real log and a real database.
#include <signal.h>

#include "gateway/loader/Database.h"
#include "gateway/log/LogURL.h"
#include "tests/gateway/engines/ScratchPostgres.h"
#include "tests/gateway/log/ClusterFixture.h"
#include "tests/support/Loopback.h"
#include "tests/support/ToolProcess.h"

namespace corvid::fleet {
namespace {

using namespace std::chrono_literals;

class LoadersTest : public ClusterTest {
 protected:
  std::vector<std::string> options() const {
    return {"--log-url", _cluster->url(), "--database",  _postgres.target(), "--streams",
            stream(),    "--monitor",     "127.0.0.1:0", "--batch",          "50"};
  }
  ToolProcess startLoader() const { return {CORVID_LOADER, options()}; }
  std::string ask(const std::string& question) {
    return Database(_postgres.target()).run(question).at(0).at(0).value_or("");
  }

  ScratchPostgres _postgres;
};

TEST_F(LoadersTest, StoreEachMessageOnceThoughTheyAreKilled) {
  constexpr std::size_t count = 3000;
  const auto publisher = makeLog(_cluster->url());
  std::atomic<std::size_t> stored{0};
  for (std::size_t number = 0; number < count; ++number)
    publisher->publish(
        message(number, R"({"clientId":"C","events":[{"_method":1},{"_method":2}]})"),
        [&](Published outcome) { stored += outcome == Published::stored ? 1 : 0; });
  ToolProcess steady = startLoader();
  for (int kills = 1; kills <= 3; ++kills) {
    ToolProcess killed = startLoader();
    // At another moment each time.
    const std::size_t some = static_cast<std::size_t>(kills) * 700;
    EXPECT_TRUE(waitUntil([&] {
      return ask("SELECT to_regclass('corvid.message') IS NOT NULL") == "t" &&
             std::stoul(ask("SELECT count(*) FROM corvid.message")) >= some;
    }));
    killed.kill();
  }
  ASSERT_TRUE(waitUntil([&] { return stored == count; }));
  EXPECT_TRUE(
      waitUntil([&] { return std::stoul(ask("SELECT count(*) FROM corvid.message")) == count; }));
  steady.signal(SIGTERM);
  EXPECT_EQ(steady.finish(), 0);
  EXPECT_THAT(steady.errors(), ::testing::HasSubstr(" 0 rejected, 0 held"));
  EXPECT_EQ(ask("SELECT count(*) || '|' || count(DISTINCT (message, number)) FROM corvid.event"),
            "6000|6000");
}

TEST_F(LoadersTest, SayWhatIsWrongWithTheirOptions) {
  auto asked = options();
  asked.push_back("--check-config");
  EXPECT_EQ(runTool(CORVID_LOADER, asked).output, "ok\n");
  asked.insert(asked.end(), {"--log-url", "kafka://x", "--database", "host=/nowhere"});
  const ToolResult wrong = runTool(CORVID_LOADER, asked);
  EXPECT_EQ(wrong.status, 1);
  EXPECT_THAT(wrong.output, ::testing::HasSubstr("WRONG --log-url: "));
  EXPECT_THAT(wrong.output, ::testing::HasSubstr("WRONG --database: "));
  EXPECT_EQ(runTool(CORVID_LOADER, {}).status, 64);
}

}  // namespace
}  // namespace corvid::fleet
