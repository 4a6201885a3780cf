#include "platform/http/CurlHTTPClient.h"

#include <variant>

#include "platform/http/Exchange.h"
#include "platform/http/HTTPWorker.h"

namespace corvid {

CurlHTTPClient::CurlHTTPClient(Options options)
    : _allowInsecureHTTP(options.allowInsecureHTTP),
      _worker(std::make_unique<HTTPWorker>(std::move(options))) {}

// The client is whole until the last completion has run.
CurlHTTPClient::~CurlHTTPClient() { _worker->stop(); }

void CurlHTTPClient::start(HTTPRequest request, HTTPCompletion completion) {
  auto made =
      makeExchange(std::move(request), _allowInsecureHTTP, std::chrono::steady_clock::now());
  if (auto* const error = std::get_if<HTTPError>(&made)) {
    completion({std::nullopt, std::move(*error)});
    return;
  }
  auto& exchange = std::get<Exchange>(made);
  exchange.completion = std::move(completion);
  _worker->add(std::move(exchange));
}

std::size_t CurlHTTPClient::exchangesUnderWay() const { return _worker->underWay(); }

std::size_t CurlHTTPClient::exchangesRefused() const { return _worker->refused(); }

}  // namespace corvid
