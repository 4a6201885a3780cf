#include "gateway/http/RequestParser.h"

#include <algorithm>
#include <array>
#include <limits>

#include "base/Text.h"

namespace corvid::fleet {

namespace http = boost::beast::http;

namespace {

constexpr std::string_view cvdPrefix = "X-CVD-";
constexpr std::array<std::string_view, 6> cvdNames{"X-CVD-Client-Name",    "X-CVD-Service-Name",
                                                   "X-CVD-Internal-Build", "X-CVD-Client-Version",
                                                   "X-CVD-Sender",         "X-CVD-Event-Map"};

std::string_view viewOf(boost::beast::string_view text) { return {text.data(), text.size()}; }
bool isSameName(std::string_view a, std::string_view b) {
  return boost::beast::iequals({a.data(), a.size()}, {b.data(), b.size()});
}

bool holdsControlCharacters(std::string_view text) {
  return std::ranges::any_of(
      text, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; });
}

}  // namespace

RequestParser::RequestParser(const std::string& clientHeader) : _clientHeader(clientHeader) {
  header_limit(static_cast<std::uint32_t>(limits::headBytes) + 1);
  // The body's limits are its reader's business.
  body_limit(std::numeric_limits<std::uint64_t>::max());
}

bool RequestParser::readHead(std::string_view& input) {
  while (!is_header_done() && !_fault) {
    bool needsMore = false;
    const std::size_t used = parse(input, needsMore);
    input.remove_prefix(used);
    _headBytes += used;
    if (_headBytes + (is_header_done() ? 0 : input.size()) > limits::headBytes)
      _fault = Rule::headTooLarge;
    if (needsMore) return false;
  }
  if (_fault) return false;
  if (content_length()) _head.length = *content_length();
  _head.isChunked = chunked();
  _head.keepsAlive = _head.keepsAlive && keep_alive();
  return true;
}

bool RequestParser::readBody(std::string_view& input, const Take& take) {
  _take = &take;
  _isLeftAlone = false;
  while (!input.empty() && !is_done() && !_isLeftAlone && !_fault) {
    bool needsMore = false;
    input.remove_prefix(parse(input, needsMore));
    if (!needsMore) continue;
    // A chunk's first line without an end.
    if (input.size() > limits::headBytes) _fault = Rule::malformed;
    break;
  }
  _take = nullptr;
  return is_done();
}

std::size_t RequestParser::parse(std::string_view input, bool& needsMore) {
  Error error;
  const std::size_t used = put(boost::asio::buffer(input.data(), input.size()), error);
  needsMore = error == http::error::need_more;
  if (error == http::error::header_limit)
    _fault = Rule::headTooLarge;
  else if (error && !needsMore)
    _fault = Rule::malformed;
  return used;
}

void RequestParser::on_request_impl(http::verb, View method, View target, int version, Error&) {
  _head.method = viewOf(method);
  _head.target = viewOf(target);
  _head.keepsAlive = version == 11;
}

void RequestParser::on_field_impl(http::field known, View name, View value, Error&) {
  if (is_header_done()) return;  // behind the last chunk: of no use here
  switch (known) {
    case http::field::content_encoding:
      _head.encoding = viewOf(value);
      ++_head.encodings;
      break;
    case http::field::expect:
      _head.expectsContinue = boost::beast::iequals(value, "100-continue");
      break;
    case http::field::transfer_encoding:
      // Others than chunked alone would leave the body encoded.
      if (!boost::beast::iequals(value, "chunked")) _fault = Rule::malformed;
      break;
    default: break;
  }
  const std::string_view text = viewOf(name);
  if (isSameName(text, _clientHeader)) _head.clientAddress = viewOf(value);
  if (isSameName(text.substr(0, cvdPrefix.size()), cvdPrefix)) addCVD(text, viewOf(value));
}

void RequestParser::addCVD(std::string_view name, std::string_view value) {
  const auto known =
      std::ranges::find_if(cvdNames, [&](std::string_view each) { return isSameName(each, name); });
  std::string written(known == cvdNames.end() ? name : *known);
  const bool isTwice = std::ranges::any_of(
      _head.cvd, [&](const auto& header) { return isSameName(header.first, written); });
  if (isTwice || value.size() > limits::headerValueBytes || holdsControlCharacters(value))
    _head.cvdFault = Rule::header;
  _head.cvd.emplace_back(std::move(written), replacingInvalidUTF8(value));
}

std::size_t RequestParser::on_body_impl(View piece, Error&) {
  _isLeftAlone = !(*_take)(viewOf(piece));
  return piece.size();
}

}  // namespace corvid::fleet
