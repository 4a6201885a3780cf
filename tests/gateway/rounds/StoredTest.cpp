// What the rounds ask the database sees each fault that they look for.
#include <fmt/format.h>

#include "tests/gateway/loader/LoaderFixture.h"
#include "tests/gateway/rounds/Device.h"
#include "tests/gateway/rounds/Stored.h"

namespace corvid::fleet {
namespace {

constexpr std::size_t posts = 20;  // one of them fits no row

class StoredTest : public LoaderFixture {
 protected:
  StoredTest() {
    Store store(_server->target());
    std::vector<LoggedMessage> messages;
    for (std::size_t post = 0; post < posts; ++post)
      for (const char* const client : {"r1-1-", "r1-11-"})
        messages.push_back(
            message(fmt::format("{}{}", client, post), Device::bodyOf(client, post)));
    store.store(messages);
  }
  Stored stored(std::size_t acknowledged = posts, std::size_t made = posts) const {
    return storedOf({"r1-1-", made, acknowledged}, _server->target());
  }
  void change(const std::string& statement) const { Database(_server->target()).runAll(statement); }
};

void expectSums(const Stored& stored, std::size_t lost, std::size_t twice, std::size_t rejected,
                std::size_t wrong) {
  EXPECT_EQ(stored.lost, lost);
  EXPECT_EQ(stored.twice, twice);
  EXPECT_EQ(stored.rejected, rejected);
  EXPECT_EQ(stored.wrong, wrong);
}

TEST_F(StoredTest, FindsNoFaultWhereThereIsNone) {
  expectSums(stored(), 0, 0, 1, 0);
  // The log may have what nobody was told of.
  expectSums(stored(posts - 2), 0, 0, 1, 0);
}

TEST_F(StoredTest, SeesWhatIsLost) {
  change("DELETE FROM corvid.event WHERE message = 'r1-1-3'");
  change("DELETE FROM corvid.event WHERE message = 'r1-1-4' AND number = 2");
  change("DELETE FROM corvid.event WHERE message = 'r1-1-19'");
  change("DELETE FROM corvid.rejected WHERE message = 'r1-1-15'");
  expectSums(stored(), 4, 0, 0, 0);
  expectSums(stored(posts - 1), 3, 0, 0, 0);
}

TEST_F(StoredTest, SeesWhatStandsTwice) {
  change("INSERT INTO corvid.event SELECT * FROM corvid.event WHERE message = 'r1-1-3'");
  change("INSERT INTO corvid.event SELECT * FROM corvid.event WHERE message = 'r1-1-4' LIMIT 1");
  change("INSERT INTO corvid.rejected SELECT * FROM corvid.rejected WHERE message = 'r1-1-15'");
  expectSums(stored(), 0, 3, 1, 0);
}

TEST_F(StoredTest, SeesWhatIsRejectedForNoReasonOrStandsInTheWrongPlace) {
  change("UPDATE corvid.rejected SET reason = ''");
  change("UPDATE corvid.event SET payload = '{\"post\": 15}' WHERE message = 'r1-1-3'");
  expectSums(stored(), 1, 0, 1, 1);
}

TEST_F(StoredTest, SeesWhatWasNeverMade) { expectSums(stored(posts - 1, posts - 1), 0, 0, 1, 1); }

}  // namespace
}  // namespace corvid::fleet
