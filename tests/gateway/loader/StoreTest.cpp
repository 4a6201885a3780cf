#include <thread>

#include "gateway/loader/Schema.h"
#include "gateway/loader/Store.h"
#include "tests/gateway/loader/LoaderFixture.h"

namespace corvid::fleet {
namespace {

using StoreTest = LoaderFixture;

TEST_F(StoreTest, WritesARowAnEventWithItsFieldsAndItsWholeText) {
  Store store(_server->target());
  const StoredCounts counts = store.store({post(1), post(2)});
  EXPECT_EQ(counts.stored, 2U);
  EXPECT_EQ(counts.rows, 4U);
  EXPECT_EQ(
      ask("SELECT concat_ws('|', day, received AT TIME ZONE 'UTC', message, number, client_id, "
          "sender, method, status, event_time AT TIME ZONE 'UTC', session, event_number, build, "
          "version, payload->>'number') FROM corvid.event WHERE message = 'id-2' AND number = 1"),
      "2026-11-21|2026-11-21 10:01:02.334619|id-2|1|C-1|ZH|7|1|2026-11-21 10:01:00.003391|"
      "root.child|2|6.1|3|2");
}

TEST_F(StoreTest, StoresAMessageOnceWhoeverReadsItHoweverOften) {
  Store store(_server->target());
  store.store({post(1), post(2), post(1)});
  EXPECT_EQ(ask("SELECT count(*) FROM corvid.event"), "4");
  Store other(_server->target());
  const StoredCounts counts = other.store({post(2), post(3), post(1)});
  EXPECT_EQ(counts.stored, 1U);
  EXPECT_EQ(counts.repeated, 2U);
  EXPECT_EQ(ask("SELECT count(*) FROM corvid.event"), "6");
}

TEST_F(StoreTest, StoresEachMessageOnceWhereStoresRaceForThem) {
  std::vector<LoggedMessage> forward;
  for (std::size_t number = 0; number < 50; ++number) forward.push_back(post(number, 1));
  const std::vector<LoggedMessage> backward(forward.rbegin(), forward.rend());
  const auto run = [&](const std::vector<LoggedMessage>& messages) {
    Store store(_server->target());
    for (std::size_t at = 0; at < messages.size(); at += 10)
      store.store({messages.begin() + static_cast<std::ptrdiff_t>(at),
                   messages.begin() + static_cast<std::ptrdiff_t>(at + 10)});
  };
  {
    const std::jthread one([&] { run(forward); });
    const std::jthread other([&] { run(backward); });
    const std::jthread third([&] { run(forward); });
  }
  EXPECT_EQ(ask("SELECT count(*) FROM corvid.event"), "50");
}

TEST_F(StoreTest, KeepsApartWhatCannotBeRowsWithItsReasonAndStoresTheRest) {
  Store store(_server->target());
  // The second is JSON, and the database takes no zero character.
  const StoredCounts counts =
      store.store({message("broken", "no JSON"),
                   message("zero", R"({"clientId":"C","events":[{"text":"a\u0000b"}]})"), post(1)});
  EXPECT_EQ(counts.stored, 1U);
  EXPECT_EQ(counts.rejected, 2U);
  EXPECT_EQ(ask("SELECT count(*) FROM corvid.event"), "2");
  EXPECT_EQ(ask("SELECT convert_from(body, 'UTF8') FROM corvid.rejected WHERE message = 'broken'"),
            "no JSON");
  EXPECT_EQ(ask("SELECT count(*) FROM corvid.rejected WHERE reason <> '' AND stream = 'events'"),
            "2");
  EXPECT_EQ(store.store({message("broken", "no JSON")}).repeated, 1U);
}

TEST_F(StoreTest, HoldsTextsAsTheyAreWhateverStandsInThem) {
  Store store(_server->target());
  const std::string text = R"(tab\t line\n quote\" back\\slash \\N 字)";
  store.store({message("a\\\"b", R"({"clientId":"C\tD","events":[{"_build":")" + text +
                                     R"(","x":")" + text + "\"}]}")});
  EXPECT_EQ(ask("SELECT build = payload->>'x' FROM corvid.event"), "t");
  EXPECT_EQ(ask("SELECT build FROM corvid.event"), "tab\t line\n quote\" back\\slash \\N 字");
  EXPECT_EQ(ask("SELECT client_id FROM corvid.event"), "C\tD");
  EXPECT_EQ(ask("SELECT message FROM corvid.event"), "a\\\"b");
}

TEST_F(StoreTest, LeavesOutNumbersThatNoColumnHolds) {
  Store store(_server->target());
  const StoredCounts counts = store.store({message(
      "large",
      R"({"clientId":"C","events":[{"_method":3000000000,"_status":-3000000000,"eventTime":1e300}]})")});
  EXPECT_EQ(counts.stored, 1U);
  EXPECT_EQ(
      ask("SELECT method IS NULL AND status IS NULL AND event_time IS NULL FROM corvid.event"),
      "t");
  EXPECT_EQ(ask("SELECT payload->>'_method' FROM corvid.event"), "3000000000");
}

TEST_F(StoreTest, StoresLogDataByteByByte) {
  Store store(_server->target());
  std::string body;
  for (int byte = 0; byte < 256; ++byte) body += static_cast<char>(byte);
  store.store({message("log", body, "logs")});
  EXPECT_EQ(
      ask("SELECT length(body) || md5(body) FROM corvid.log_data"),
      "256" + ask("SELECT md5(decode(string_agg(lpad(to_hex(n), 2, '0'), '' ORDER BY n), 'hex')) "
                  "FROM generate_series(0, 255) n"));
  EXPECT_EQ(ask("SELECT headers->>'X-CVD-Sender' FROM corvid.log_data"), "HZ");
}

TEST_F(StoreTest, DropsDaysThatAreOverAndGoesOnWithoutThem) {
  Store store(_server->target());
  LoggedMessage old = post(1);
  old.message.headers[0].second = "1600000000";
  store.store({old, post(2)});
  EXPECT_EQ(dropOldPartitions(store.database(), 365), 2U);
  EXPECT_EQ(ask("SELECT count(*) FROM corvid.event"), "2");
  EXPECT_EQ(ask("SELECT string_agg(id, ',') FROM corvid.message"), "id-2");
  // The store still believes that the day has its partition.
  EXPECT_THROW(store.store({old}), DatabaseError);
  EXPECT_EQ(Store(_server->target()).store({old}).stored, 1U);
}

TEST_F(StoreTest, RemovesEveryRowOfAClientAndNoOther) {
  Store store(_server->target());
  store.store({post(1, 2, "C-1"), post(2, 3, "C-2"), message("bad", R"({"clientId":"C-2")")});
  EXPECT_EQ(removeClient(store.database(), "C-2"), 4U);
  EXPECT_EQ(ask("SELECT string_agg(DISTINCT client_id, ',') FROM corvid.event"), "C-1");
  EXPECT_EQ(ask("SELECT count(*) FROM corvid.rejected"), "0");
}

TEST_F(StoreTest, AnswersTheFirstQuestionsByViews) {
  Store store(_server->target());
  store.store({post(1, 2, "C-1"), post(2, 3, "C-2")});
  EXPECT_EQ(ask("SELECT concat_ws('|', day, build, events, clients) "
                "FROM corvid.events_by_day_and_build"),
            "2026-11-21|6.1|5|2");
  EXPECT_EQ(ask("SELECT concat_ws('|', root, depth, events) FROM corvid.session_chains"),
            "root|2|5");
  EXPECT_EQ(ask("SELECT sum(events) FROM corvid.sent_by_client WHERE client_id = 'C-2'"), "3");
}

}  // namespace
}  // namespace corvid::fleet
