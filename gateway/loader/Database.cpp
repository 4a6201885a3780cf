#include "gateway/loader/Database.h"

#include <fmt/format.h>

#include <iterator>

namespace corvid::fleet {

namespace {

std::string firstLineOf(const char* text) {
  const std::string_view whole = text == nullptr ? "" : text;
  return std::string(whole.substr(0, whole.find('\n')));
}

}  // namespace

Database::Database(const std::string& target) : _connection(PQconnectdb(target.c_str())) {
  if (PQstatus(_connection.get()) != CONNECTION_OK) fail(nullptr);
  PQsetNoticeReceiver(
      _connection.get(), [](void*, const PGresult*) {}, nullptr);
}

void Database::fail(const PGresult* result) const {
  const char* const state =
      result == nullptr ? nullptr : PQresultErrorField(result, PG_DIAG_SQLSTATE);
  const char* const primary =
      result == nullptr ? nullptr : PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
  const bool isLost = PQstatus(_connection.get()) != CONNECTION_OK;
  throw DatabaseError(firstLineOf(primary != nullptr ? primary : PQerrorMessage(_connection.get())),
                      state == nullptr || isLost ? "" : state);
}

Database::ResultPtr Database::checked(PGresult* result) const {
  ResultPtr owned(result);
  const ExecStatusType status = PQresultStatus(result);
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK && status != PGRES_COPY_IN)
    fail(result);
  return owned;
}

std::vector<Database::Row> Database::run(const std::string& statement, const Row& parameters) {
  std::vector<const char*> values;
  for (const auto& parameter : parameters)
    values.push_back(parameter ? parameter->c_str() : nullptr);
  const ResultPtr result =
      checked(PQexecParams(_connection.get(), statement.c_str(), static_cast<int>(values.size()),
                           nullptr, values.data(), nullptr, nullptr, 0));
  std::vector<Row> rows(static_cast<std::size_t>(PQntuples(result.get())));
  for (std::size_t at = 0; at < rows.size(); ++at)
    for (int column = 0; column < PQnfields(result.get()); ++column) {
      const int row = static_cast<int>(at);
      rows[at].push_back(PQgetisnull(result.get(), row, column) != 0
                             ? std::nullopt
                             : std::optional<std::string>(PQgetvalue(result.get(), row, column)));
    }
  return rows;
}

void Database::runAll(const std::string& statements) {
  checked(PQexec(_connection.get(), statements.c_str()));
}

void Database::copy(const std::string& tableAndColumns, std::string_view lines) {
  PGconn* const connection = _connection.get();
  checked(PQexec(connection, fmt::format("COPY {} FROM STDIN", tableAndColumns).c_str()));
  constexpr std::size_t piece = std::size_t{1} << 20;
  for (; !lines.empty(); lines.remove_prefix(std::min(lines.size(), piece)))
    if (PQputCopyData(connection, lines.data(), static_cast<int>(std::min(lines.size(), piece))) !=
        1)
      fail(nullptr);
  if (PQputCopyEnd(connection, nullptr) != 1) fail(nullptr);
  const ResultPtr ended(PQgetResult(connection));
  // A command ends with a result that is none.
  while (const ResultPtr rest{PQgetResult(connection)}) continue;
  if (PQresultStatus(ended.get()) != PGRES_COMMAND_OK) fail(ended.get());
}

Transaction::~Transaction() {
  if (_isOpen) try {
      _database.runAll("ROLLBACK");
    } catch (const DatabaseError&) {
      // The connection is lost, and the transaction with it.
    }
}

void Transaction::commit() {
  _isOpen = false;
  _database.runAll("COMMIT");
}

void appendCopyField(std::string& line, std::string_view text) {
  for (const char byte : text) switch (byte) {
      case '\\': line += "\\\\"; break;
      case '\t': line += "\\t"; break;
      case '\n': line += "\\n"; break;
      case '\r': line += "\\r"; break;
      default: line += byte;
    }
}

void appendCopyBytes(std::string& line, std::string_view bytes) {
  line += "\\\\x";
  for (const char byte : bytes)
    fmt::format_to(std::back_inserter(line), "{:02x}", static_cast<unsigned char>(byte));
}

}  // namespace corvid::fleet
