// A connection to PostgreSQL.
#pragma once

#include <libpq-fe.h>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace corvid::fleet {

// What the server has against a statement. `state` is its SQLSTATE; empty where the connection is
// lost.
class DatabaseError : public std::runtime_error {
 public:
  DatabaseError(const std::string& text, std::string state)
      : std::runtime_error(text), _state(std::move(state)) {}

  // The values are at fault, and the same ones will be the next time: they are out of range, not as
  // their type wants them, or break a constraint; or the statement exceeds a limit of the server.
  bool isOfTheData() const {
    if (_state == noPartition) return false;
    return _state.starts_with("22") || _state.starts_with("23") || _state.starts_with("54");
  }

 private:
  static constexpr const char* noPartition = "23514";  // somebody has dropped it
  std::string _state;
};

// Throws DatabaseError. One thread.
class Database {
 public:
  using Row = std::vector<std::optional<std::string>>;

  // `target`: a connection string or URL as libpq takes it.
  explicit Database(const std::string& target);

  // One statement with its parameters as texts, $1 first.
  std::vector<Row> run(const std::string& statement, const Row& parameters = {});
  // Any number of statements without parameters.
  void runAll(const std::string& statements);
  // Lines in COPY's text format, into a table with its columns.
  void copy(const std::string& tableAndColumns, std::string_view lines);

 private:
  struct Deleter {
    void operator()(PGconn* connection) const { PQfinish(connection); }
    void operator()(PGresult* result) const { PQclear(result); }
  };
  using ResultPtr = std::unique_ptr<PGresult, Deleter>;
  ResultPtr checked(PGresult* result) const;
  [[noreturn]] void fail(const PGresult* result) const;

  std::unique_ptr<PGconn, Deleter> _connection;
};

// From construction to `commit`, or undone.
class Transaction {
 public:
  explicit Transaction(Database& database) : _database(database) { _database.runAll("BEGIN"); }
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  void commit();

 private:
  Database& _database;
  bool _isOpen = true;
};

// A field of COPY's text format; what it has of tabs, line ends and backslashes is escaped.
void appendCopyField(std::string& line, std::string_view text);
// Bytes for a column of type bytea, in such a field.
void appendCopyBytes(std::string& line, std::string_view bytes);
inline constexpr std::string_view copyNull = "\\N";

}  // namespace corvid::fleet
