#include "tests/fakes/FakeHTTPClient.h"

#include <cassert>

namespace corvid {

void FakeHTTPClient::start(HTTPRequest request, HTTPCompletion completion) {
  Rule rule;
  {
    std::lock_guard lock(_mutex);
    _requests.push_back(request);
    rule = _rule;
    if (!rule) {
      _waiting.push_back(std::move(completion));
      return;
    }
  }
  completion(rule(request));
}

std::size_t FakeHTTPClient::exchangesUnderWay() const {
  std::lock_guard lock(_mutex);
  return _waiting.size();
}

void FakeHTTPClient::answerWith(Rule rule) {
  std::lock_guard lock(_mutex);
  _rule = std::move(rule);
}

void FakeHTTPClient::hold() { answerWith(nullptr); }

std::vector<HTTPRequest> FakeHTTPClient::requests() const {
  std::lock_guard lock(_mutex);
  return _requests;
}

void FakeHTTPClient::completeNext(HTTPOutcome outcome) {
  HTTPCompletion completion;
  {
    std::lock_guard lock(_mutex);
    assert(!_waiting.empty());
    completion = std::move(_waiting.front());
    _waiting.pop_front();
  }
  completion(std::move(outcome));
}

HTTPOutcome FakeHTTPClient::response(int status, std::string body, HTTPHeaders headers) {
  return {HTTPResponse{status, std::move(headers), std::move(body)}, std::nullopt};
}

HTTPOutcome FakeHTTPClient::error(int code, std::string description, HTTPFailure kind) {
  return {std::nullopt, HTTPError{code, std::move(description), kind}};
}

}  // namespace corvid
