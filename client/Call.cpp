#include "client/Call.h"

#include "base/Reading.h"
#include "protocol/Keys.h"

namespace corvid::library {

namespace {

SharedCall unheard(Request request) {
  return std::make_shared<Call>(std::move(request), Completion(nullptr, nullptr), wire::Extent());
}

// As the daemon takes it: who requires user info keeps what there is when given none.
bool keepsUserInfo(const Request& described, const std::optional<Dictionary>& given) {
  return !given && booleanAt(*described.sessionInfo, kCorvidSessionInfoRequireUserInfo);
}

}  // namespace

void Wishes::note(const Request& request) {
  switch (request.operation) {
    case CORVID_OPERATION_SET_SESSION_INFO:
      sessionInfo = std::make_shared<const Request>(request);
      break;
    case CORVID_OPERATION_START_CONFIG: startConfig = true; break;
    case CORVID_OPERATION_FETCH_STATES: {
      if (!sessionInfo || keepsUserInfo(*sessionInfo, request.userInfo)) break;
      Request described = *sessionInfo;
      described.userInfo = request.userInfo;
      sessionInfo = std::make_shared<const Request>(std::move(described));
      break;
    }
    default: break;
  }
}

std::vector<SharedCall> Wishes::calls() const {
  std::vector<SharedCall> calls;
  if (sessionInfo) calls.push_back(unheard(*sessionInfo));
  if (startConfig) calls.push_back(unheard({.operation = CORVID_OPERATION_START_CONFIG}));
  return calls;
}

}  // namespace corvid::library
