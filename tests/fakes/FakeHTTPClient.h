// An HTTP client that keeps what was started; the test answers by hand or by rule.
#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <vector>

#include "platform/HTTPClient.h"

namespace corvid {

class FakeHTTPClient final : public HTTPClient {
 public:
  using Rule = std::function<HTTPOutcome(const HTTPRequest&)>;

  void start(HTTPRequest request, HTTPCompletion completion) override;
  std::size_t exchangesUnderWay() const override;
  std::map<std::string, Load> loads() const override { return {}; }

  // From now on every request is answered at once, on the caller's thread, with what `rule` gives.
  void answerWith(Rule rule);
  // From now on exchanges wait until they are completed by hand.
  void hold();

  // Every request ever started, oldest first.
  std::vector<HTTPRequest> requests() const;
  // Completes the oldest waiting exchange on the caller's thread. There must be one.
  void completeNext(HTTPOutcome outcome);

  static HTTPOutcome response(int status, std::string body = {}, HTTPHeaders headers = {});
  static HTTPOutcome error(int code, std::string description,
                           HTTPFailure kind = HTTPFailure::other);

 private:
  mutable std::mutex _mutex;
  Rule _rule;
  std::vector<HTTPRequest> _requests;
  std::deque<HTTPCompletion> _waiting;
};

}  // namespace corvid
