// From a request's head to what takes its body.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <variant>

#include "gateway/Shared.h"
#include "gateway/Worker.h"
#include "gateway/body/Exchange.h"
#include "gateway/http/Answer.h"
#include "gateway/http/RequestHead.h"

namespace corvid::fleet {

Route routeOf(const RequestHead& head);

// The rule that the head breaks, as far as it alone tells.
std::optional<Rule> faultOf(const RequestHead& head, Route route, const Shared& shared);

// What takes the body of a head without fault. `hold`: how long it may wait for the log. `share`:
// its client's. `goOn`: see Exchange::Wish::pause.
std::unique_ptr<Exchange> exchangeFor(RequestHead head, Route route, Worker& worker,
                                      std::chrono::steady_clock::duration hold,
                                      std::shared_ptr<Budget::Share> share,
                                      std::function<void()> goOn);

// What monitors and balancers ask: GET /healthz, and where `all`, GET /metrics. Nothing where the
// request is for neither.
std::optional<Answer> monitorsAnswer(const RequestHead& head, bool all, Worker& worker);

}  // namespace corvid::fleet
