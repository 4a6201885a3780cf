#include "gateway/loader/Schema.h"

#include <fmt/format.h>

namespace corvid::fleet {

namespace {

// Events lie by the day on which a gateway received them: a device's clock may say anything.
constexpr const char* schema = R"(
CREATE SCHEMA IF NOT EXISTS corvid;

-- Every message that was stored, so that one which comes again is known.
CREATE TABLE IF NOT EXISTS corvid.message (
  id text PRIMARY KEY,
  received timestamptz NOT NULL
);
CREATE INDEX IF NOT EXISTS message_received ON corvid.message (received);

CREATE TABLE IF NOT EXISTS corvid.event (
  day date NOT NULL,
  received timestamptz NOT NULL,
  message text NOT NULL,
  number int NOT NULL,       -- of the event in its message, from 0
  client_id text NOT NULL,
  sender text,
  method int,
  status int,
  event_time timestamptz,
  session text,              -- with its ancestors before it, joined by '.'
  event_number int,
  build text,
  version bigint,
  payload jsonb NOT NULL     -- the whole event
) PARTITION BY RANGE (day);
CREATE INDEX IF NOT EXISTS event_client ON corvid.event (client_id, received);
CREATE INDEX IF NOT EXISTS event_session ON corvid.event (session);

CREATE TABLE IF NOT EXISTS corvid.log_data (
  day date NOT NULL,
  received timestamptz NOT NULL,
  message text NOT NULL,
  headers jsonb NOT NULL,
  body bytea NOT NULL
) PARTITION BY RANGE (day);

CREATE TABLE IF NOT EXISTS corvid.rejected (
  message text NOT NULL,
  stream text NOT NULL,
  received timestamptz NOT NULL,
  reason text NOT NULL,
  headers text NOT NULL,
  body bytea NOT NULL
);

CREATE OR REPLACE VIEW corvid.events_by_day_and_build AS
  SELECT day, build, count(*) AS events, count(DISTINCT client_id) AS clients
  FROM corvid.event GROUP BY day, build;

-- Each session with the events of those below it.
CREATE OR REPLACE VIEW corvid.session_chains AS
  SELECT split_part(session, '.', 1) AS root, session,
         array_length(string_to_array(session, '.'), 1) AS depth, count(*) AS events,
         min(event_time) AS first_event, max(event_time) AS last_event
  FROM corvid.event WHERE session IS NOT NULL GROUP BY session;

CREATE OR REPLACE VIEW corvid.sent_by_client AS
  SELECT client_id, sender, method, status, count(*) AS events,
         min(received) AS first_received, max(received) AS last_received
  FROM corvid.event GROUP BY client_id, sender, method, status;
)";

// Others that make tables wait meanwhile, until the transaction's end.
constexpr const char* lockSchema = "SELECT pg_advisory_xact_lock(7241938846123)";

}  // namespace

void makeSchema(Database& database) {
  Transaction transaction(database);
  database.run(lockSchema);
  database.runAll(schema);
  transaction.commit();
}

void makePartitions(Database& database, const std::string& day) {
  const auto digits = database.run("SELECT to_char($1::date, 'YYYYMMDD')", {day});
  Transaction transaction(database);
  database.run(lockSchema);
  for (const char* const table : {"event", "log_data"})
    database.runAll(
        fmt::format("CREATE TABLE IF NOT EXISTS corvid.{0}_{1} PARTITION OF corvid.{0} "
                    "FOR VALUES FROM (date '{1}') TO (date '{1}' + 1)",
                    table, *digits.at(0).at(0)));
  transaction.commit();
}

std::size_t dropOldPartitions(Database& database, int days) {
  Transaction transaction(database);
  database.run(lockSchema);
  const auto old = database.run(
      "SELECT child.relname FROM pg_inherits "
      "JOIN pg_class child ON child.oid = inhrelid "
      "WHERE inhparent IN ('corvid.event'::regclass, 'corvid.log_data'::regclass) "
      "AND to_date(right(child.relname, 8), 'YYYYMMDD') < (now() AT TIME ZONE 'UTC')::date - $1::int",
      {std::to_string(days)});
  for (const auto& row : old) database.runAll(fmt::format("DROP TABLE corvid.{}", *row[0]));
  const std::string before = "(((now() AT TIME ZONE 'UTC')::date - $1::int) AT TIME ZONE 'UTC')";
  for (const char* const table : {"message", "rejected"})
    database.run(fmt::format("DELETE FROM corvid.{} WHERE received < {}", table, before),
                 {std::to_string(days)});
  transaction.commit();
  return old.size();
}

std::size_t removeClient(Database& database, const std::string& client) {
  Transaction transaction(database);
  std::size_t removed = 0;
  for (
      const char* const statement :
      {"WITH gone AS (DELETE FROM corvid.event WHERE client_id = $1 RETURNING 1) "
       "SELECT count(*) FROM gone",
       "WITH gone AS (DELETE FROM corvid.rejected "
       "WHERE position(convert_to($1, 'UTF8') in body) > 0 RETURNING 1) SELECT count(*) FROM gone"})
    removed += std::stoul(*database.run(statement, {client}).at(0).at(0));
  transaction.commit();
  return removed;
}

}  // namespace corvid::fleet
