// A request on its way, packed so that many can wait.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "base/Result.h"
#include "platform/Clock.h"
#include "platform/HTTPClient.h"

namespace corvid {

struct Exchange {
  using Time = Clock::TimePoint;

  std::string url;
  std::string host;  // with the port, where the URL names one
  // Header lines, each ended by a NUL: those given and, without a value, those that libcurl would
  // add unasked.
  std::string headerLines;
  std::string body;
  std::shared_ptr<const UnnamedFile> rest;  // behind the body
  bool isPost = false;
  bool wantsBody = true;
  Time deadline;
  std::chrono::milliseconds patience{0};  // to wait for room in the queue
  bool deadlineCoversWait = false;
  std::function<bool()> mayLeave;  // as HTTPRequest says
  User user;
  HTTPCompletion completion;

  // What it keeps in memory.
  std::size_t size() const { return url.size() + headerLines.size() + body.size(); }
};

// Which kind of failure a code of libcurl's stands for, as an exchange of ours meets it.
HTTPFailure failureOf(int code);

// The exchange for `request`, without a completion; or why the request cannot be sent at all, with
// a code of libcurl's.
Result<Exchange> makeExchange(HTTPRequest request, bool allowInsecureHTTP, Exchange::Time now);

}  // namespace corvid
