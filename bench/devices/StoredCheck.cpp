#include "bench/devices/StoredCheck.h"

#include <fmt/format.h>

#include <thread>

#include "bench/devices/DevicePosts.h"

namespace corvid::bench {

namespace {

void writeSent(fleet::Database& database, const Tally& tally) {
  database.runAll(
      "CREATE TEMP TABLE posted (client text, first bigint, fate text);"
      "CREATE TEMP TABLE sent (client text, sequence bigint, fate text)");
  std::string lines;
  for (const SentPost& post : tally.posts)
    lines += fmt::format("{}\t{}\t{}\n", DevicePosts::client(tally.run, post.device), post.first,
                         static_cast<char>(post.fate));
  database.copy("posted (client, first, fate)", lines);
  database.run(
      "INSERT INTO sent SELECT client, generate_series(first, first + $1::int - 1), fate "
      "FROM posted",
      {std::to_string(tally.eventsEach)});
  database.runAll("CREATE INDEX ON sent (client, sequence); ANALYZE sent");
}

// The rows of the run, each event once, with how often it is there.
void readStored(fleet::Database& database, const Tally& tally) {
  database.runAll(
      "DROP TABLE IF EXISTS found;"
      "CREATE TEMP TABLE found (client text, sequence bigint, times bigint)");
  const std::string ageSeconds = fmt::format("{:.0f}", tally.seconds + 3600);
  database.run(
      "INSERT INTO found SELECT client_id, (payload->>'sequence')::bigint, count(*) "
      "FROM corvid.event WHERE starts_with(client_id, $1) AND "
      "day >= ((now() - $2::int * interval '1 second') AT TIME ZONE 'UTC')::date GROUP BY 1, 2",
      {tally.run, ageSeconds});
  database.runAll("CREATE INDEX ON found (client, sequence); ANALYZE found");
}

Stored count(fleet::Database& database, const Tally& tally) {
  readStored(database, tally);
  const auto number = [&](const std::string& question, const fleet::Database::Row& values = {}) {
    return std::stoull(database.run(question, values).at(0).at(0).value_or("0"));
  };
  return {
      .acknowledged = number("SELECT count(*) FROM sent WHERE fate = 'a'"),
      .stored = number("SELECT sum(times) FROM found"),
      .lost = number("SELECT count(*) FROM sent WHERE fate = 'a' AND NOT EXISTS "
                     "(SELECT FROM found WHERE (found.client, found.sequence) = "
                     "(sent.client, sent.sequence))"),
      .twice = number("SELECT sum(times - 1) FROM found"),
      .refused = number("SELECT count(*) FROM found JOIN sent USING (client, sequence) "
                        "WHERE fate = 'r'"),
      .setApart = number("SELECT count(*) FROM corvid.rejected "
                         "WHERE position(convert_to($1, 'UTF8') in body) > 0",
                         {tally.run}),
  };
}

}  // namespace

std::string Stored::text() const {
  return fmt::format(
      "database  {} events acknowledged, {} rows: {} lost, {} twice, {} of refused posts; "
      "{} messages set apart\n",
      acknowledged, stored, lost, twice, refused, setApart);
}

Stored findStored(const Tally& tally, const std::string& target, std::chrono::seconds settle) {
  fleet::Database database(target);
  writeSent(database, tally);
  const auto deadline = std::chrono::steady_clock::now() + settle;
  while (true) {
    const Stored stored = count(database, tally);
    if (stored.lost == 0 || std::chrono::steady_clock::now() >= deadline) return stored;
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
  }
}

}  // namespace corvid::bench
