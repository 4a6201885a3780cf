// HTTP/1.1 requests as they come from a connection.
#pragma once

#include <boost/beast/http/basic_parser.hpp>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "gateway/Limits.h"
#include "gateway/http/RequestHead.h"

namespace corvid::fleet {

// Reads one request. Its body is handed on as it comes, chunks joined, and not kept.
//
// Not synchronised.
class RequestParser final : private boost::beast::http::basic_parser<true> {
 public:
  // `clientHeader`: the header that names the client; borrowed.
  explicit RequestParser(const std::string& clientHeader);

  // Takes from the front of `input`. True once the head is whole, and then nothing behind it was
  // taken. What is left otherwise must be given again, with more behind it.
  bool readHead(std::string_view& input);
  // Takes from the front of `input` and calls `take` for each piece of the body. Only for a whole
  // head. True once the request is whole. `take` gives false to be left alone for now.
  using Take = std::function<bool(std::string_view)>;
  bool readBody(std::string_view& input, const Take& take);

  // Why there is no use in reading on.
  std::optional<Rule> fault() const { return _fault; }
  bool isWhole() const { return is_done(); }
  RequestHead& head() { return _head; }

 private:
  using Error = boost::beast::error_code;
  using View = boost::beast::string_view;

  std::size_t parse(std::string_view input, bool& needsMore);
  void on_request_impl(boost::beast::http::verb, View method, View target, int version,
                       Error&) override;
  void on_response_impl(int, View, int, Error&) override {}
  void on_field_impl(boost::beast::http::field known, View name, View value, Error&) override;
  void on_header_impl(Error&) override {}
  void on_body_init_impl(const boost::optional<std::uint64_t>&, Error&) override {}
  std::size_t on_body_impl(View piece, Error&) override;
  void on_chunk_header_impl(std::uint64_t, View, Error&) override {}
  std::size_t on_chunk_body_impl(std::uint64_t, View piece, Error& error) override {
    return on_body_impl(piece, error);
  }
  void on_finish_impl(Error&) override {}
  void addCVD(std::string_view name, std::string_view value);

  const std::string& _clientHeader;
  RequestHead _head;
  std::size_t _headBytes = 0;
  const Take* _take = nullptr;
  bool _isLeftAlone = false;
  std::optional<Rule> _fault;
};

}  // namespace corvid::fleet
