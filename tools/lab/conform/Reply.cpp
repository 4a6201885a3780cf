#include "tools/lab/conform/Reply.h"

#include <fmt/format.h>

#include <algorithm>

#include "base/LogLine.h"
#include "base/Reading.h"
#include "base/Text.h"

namespace corvid::lab::conform {

namespace {

constexpr std::size_t shownBytes = 100;
constexpr std::size_t mostHeadBytes = std::size_t{64} << 10;

bool hasNoBody(int status) { return status < 200 || status == 204 || status == 304; }

// Its first line with the status, and its headers; nothing where it is no HTTP/1.x.
std::optional<Reply> readHead(std::string_view head) {
  Reply reply;
  bool isFirst = true;
  for (const std::string_view whole : split(head, '\n')) {
    const std::string_view line = trimmed(whole);
    if (std::exchange(isFirst, false)) {
      const auto status = line.size() < 12 ? std::nullopt : numberFrom<int>(line.substr(9, 3));
      if (!line.starts_with("HTTP/1.") || !status || *status < 100) return std::nullopt;
      reply.status = *status;
      continue;
    }
    const std::size_t colon = line.find(':');
    if (colon == line.npos) return std::nullopt;
    reply.headers.emplace_back(line.substr(0, colon), trimmed(line.substr(colon + 1)));
  }
  return reply;
}

enum class Progress { whole, cut, wrong };

// A body in chunks; `bytes` loses it where it is whole.
Progress takeChunks(std::string_view& bytes, std::string& body) {
  std::string_view rest = bytes;
  for (;;) {
    const std::size_t lineEnd = rest.find("\r\n");
    if (lineEnd == rest.npos) return Progress::cut;
    const std::string_view line = rest.substr(0, lineEnd);
    const auto size = numberFrom<std::size_t>(trimmed(line.substr(0, line.find(';'))), 16);
    if (!size) return Progress::wrong;
    rest.remove_prefix(lineEnd + 2);
    if (*size == 0) break;
    if (rest.size() < *size || rest.size() - *size < 2) return Progress::cut;
    body += rest.substr(0, *size);
    rest.remove_prefix(*size + 2);
  }
  // Trailers, and an empty line.
  for (;;) {
    const std::size_t lineEnd = rest.find("\r\n");
    if (lineEnd == rest.npos) return Progress::cut;
    rest.remove_prefix(lineEnd + 2);
    if (lineEnd == 0) break;
  }
  bytes = rest;
  return Progress::whole;
}

Progress takeBody(std::string_view& bytes, Reply& reply, bool isOver) {
  if (hasNoBody(reply.status)) return Progress::whole;
  if (const auto coding = reply.header("Transfer-Encoding");
      coding && equalsIgnoringCase(*coding, "chunked"))
    return takeChunks(bytes, reply.body);
  std::size_t length = bytes.size();
  if (const auto said = reply.header("Content-Length")) {
    const auto number = numberFrom<std::size_t>(*said);
    if (!number) return Progress::wrong;
    length = *number;
  } else if (!isOver) {
    return Progress::cut;
  }
  if (bytes.size() < length) return Progress::cut;
  reply.body = bytes.substr(0, length);
  bytes.remove_prefix(length);
  return Progress::whole;
}

}  // namespace

std::optional<std::string> Reply::header(std::string_view name) const {
  for (const auto& [key, value] : headers)
    if (equalsIgnoringCase(key, name)) return value;
  return std::nullopt;
}

bool Reply::closes() const {
  const auto connection = header("Connection");
  return connection && equalsIgnoringCase(*connection, "close");
}

std::string Reply::text() const {
  switch (kind) {
    case Kind::silence: return "nothing in time";
    case Kind::end: return "the end of the connection";
    case Kind::noHTTP: return "what is no HTTP";
    case Kind::answer: break;
  }
  const std::string_view line =
      std::string_view(body).substr(0, std::min(body.find('\n'), shownBytes));
  if (line.empty()) return fmt::format("{}", status);
  return fmt::format("{} \"{}\"", status, logLine(line, line.size()));
}

std::optional<Reply> takeReply(std::string& bytes, bool isOver) {
  const std::size_t headEnd = bytes.find("\r\n\r\n");
  const auto wrong = [&] {
    bytes.clear();
    return Reply{.kind = Reply::Kind::noHTTP};
  };
  const std::string_view begin = std::string_view("HTTP/1.").substr(0, bytes.size());
  if (!bytes.starts_with(begin) || (headEnd == bytes.npos && bytes.size() > mostHeadBytes))
    return wrong();
  if (headEnd == bytes.npos) return std::nullopt;
  std::optional<Reply> reply = readHead(std::string_view(bytes).substr(0, headEnd));
  if (!reply) return wrong();
  std::string_view rest = std::string_view(bytes).substr(headEnd + 4);
  switch (takeBody(rest, *reply, isOver)) {
    case Progress::whole: break;
    case Progress::cut: return std::nullopt;
    case Progress::wrong: return wrong();
  }
  bytes.erase(0, bytes.size() - rest.size());
  return reply;
}

}  // namespace corvid::lab::conform
