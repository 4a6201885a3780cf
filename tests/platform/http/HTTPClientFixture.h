// A client and a misbehaving server on loopback, in the clear and through TLS.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/http/CurlHTTPClient.h"
#include "platform/http/Transfer.h"
#include "tests/fakes/FakeClock.h"
#include "tests/support/Scratch.h"
#include "tests/support/Waiting.h"
#include "tools/lab/HTTPServer.h"

namespace corvid {

using namespace std::chrono_literals;

// Outcomes in the order of their completion.
class Outcomes {
 public:
  HTTPCompletion completion() {
    return [this](HTTPOutcome outcome) {
      _notice.change([&] { _all.push_back(std::move(outcome)); });
    };
  }
  // False where they do not come.
  bool waitFor(std::size_t count) {
    return _notice.await([&] { return _all.size() >= count; });
  }
  std::vector<HTTPOutcome> all() {
    std::vector<HTTPOutcome> copy;
    _notice.change([&] { copy = _all; });
    return copy;
  }

 private:
  Notice _notice;
  std::vector<HTTPOutcome> _all;
};

class HTTPClientFixture {
 protected:
  explicit HTTPClientFixture(bool withTLS) : _withTLS(withTLS) {
    identity = std::make_unique<lab::TLSIdentity>(folder.path());
    restartClient();
  }
  ~HTTPClientFixture() {
    client.reset();
    server.reset();
  }

  CurlHTTPClient::Options defaultOptions() const {
    return {.caFile = identity->caFile(), .allowInsecureHTTP = !_withTLS};
  }
  void restartClient() { restartClient(defaultOptions()); }
  void restartClient(CurlHTTPClient::Options options) {
    client.reset();
    client = std::make_unique<CurlHTTPClient>(clock, std::move(options));
  }

  void serve(lab::Handler handler) {
    lab::HTTPServer::Options options;
    if (_withTLS) options.tls = identity->server();
    serve(std::move(handler), options);
  }
  void serve(lab::Handler handler, lab::HTTPServer::Options options) {
    server = std::make_unique<lab::HTTPServer>(std::move(handler), options);
  }
  void serve(lab::Answer answer) {
    serve([answer = std::move(answer)](const lab::Request&) { return answer; });
  }

  HTTPRequest get(std::string_view target = "/") const { return {.url = server->url(target)}; }
  HTTPRequest post(std::string body, std::string_view target = "/") const {
    return {.method = "POST", .url = server->url(target), .body = std::move(body)};
  }
  // An exchange that does not end fails the test, and ends with its client.
  HTTPOutcome perform(HTTPRequest request) {
    Outcomes outcomes;
    client->start(std::move(request), outcomes.completion());
    if (!outcomes.waitFor(1)) {
      ADD_FAILURE() << "the exchange does not end";
      restartClient();
    }
    return outcomes.all().front();
  }
  // The error's code; 0 where there was a response.
  int codeOf(HTTPRequest request) {
    const HTTPOutcome outcome = perform(std::move(request));
    return outcome.error ? outcome.error->code : 0;
  }

  const std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
  ScratchFolder folder;
  std::unique_ptr<lab::TLSIdentity> identity;
  std::unique_ptr<lab::HTTPServer> server;
  std::unique_ptr<CurlHTTPClient> client;

 private:
  const bool _withTLS;
};

// Each case runs in the clear and through TLS.
class HTTPClientTest : public HTTPClientFixture, public testing::TestWithParam<bool> {
 protected:
  HTTPClientTest() : HTTPClientFixture(GetParam()) {}
};

inline std::string transportName(const testing::TestParamInfo<bool>& test) {
  return test.param ? "TLS" : "Plain";
}

}  // namespace corvid
