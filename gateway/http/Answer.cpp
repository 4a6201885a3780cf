#include "gateway/http/Answer.h"

#include <fmt/format.h>

#include <iterator>
#include <utility>

namespace corvid::fleet {

namespace {

std::string_view phraseOf(int status) {
  switch (status) {
    case 200: return "OK";
    case 400: return "Bad Request";
    case 404: return "Not Found";
    case 405: return "Method Not Allowed";
    case 408: return "Request Timeout";
    case 411: return "Length Required";
    case 413: return "Content Too Large";
    case 415: return "Unsupported Media Type";
    case 422: return "Unprocessable Content";
    case 429: return "Too Many Requests";
    case 431: return "Request Header Fields Too Large";
    case 503: return "Service Unavailable";
    case 507: return "Insufficient Storage";
    default: return "";
  }
}

}  // namespace

Answer answerTo(const Refusal& refusal, int whenFull) {
  const RuleText& text = textOf(refusal.rule);
  std::string line(text.text);
  if (!refusal.detail.empty()) line.append(" ").append(refusal.detail);
  return {.status = text.status == 0 ? whenFull : text.status, .body = line + "\n"};
}

Answer answerTo(Verdict verdict, int whenFull) {
  if (verdict.refusal) return answerTo(*verdict.refusal, whenFull);
  return {.body = std::move(verdict.body), .type = verdict.type};
}

std::string wireForm(const Answer& answer, bool keepsAlive) {
  std::string wire;
  wire.reserve(128 + answer.body.size());
  const auto out = std::back_inserter(wire);
  fmt::format_to(out, "HTTP/1.1 {} {}\r\nContent-Length: {}\r\n", answer.status,
                 phraseOf(answer.status), answer.body.size());
  if (!answer.body.empty()) fmt::format_to(out, "Content-Type: {}\r\n", answer.type);
  if (!answer.allow.empty()) fmt::format_to(out, "Allow: {}\r\n", answer.allow);
  if (!keepsAlive) wire += "Connection: close\r\n";
  wire += "\r\n";
  return wire += answer.body;
}

}  // namespace corvid::fleet
