// A client in C++17 that uses no exceptions: every call gives a Status, which cannot be ignored by
// mistake, and answers come to lambdas on the session's own thread.
#include <chrono>
#include <condition_variable>
#include <corvid/corvid.hpp>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>

using namespace corvid::client;

namespace {

// Lets the main thread wait until calls have ended.
class Calls {
 public:
  Session::Finished one() {
    const std::lock_guard lock(_mutex);
    ++_underWay;
    return [this](corvid_outcome_t outcome) {
      const std::lock_guard notified(_mutex);
      if (outcome == CORVID_OUTCOME_FAILED) _failed = true;
      if (--_underWay == 0) _changed.notify_all();
    };
  }
  // False where one has failed, or they take too long.
  bool await() {
    std::unique_lock lock(_mutex);
    return _changed.wait_for(lock, std::chrono::seconds(30), [this] { return _underWay == 0; }) &&
           !_failed;
  }

 private:
  std::mutex _mutex;
  std::condition_variable _changed;
  int _underWay = 0;
  bool _failed = false;
};

void show(StatesView states) {
  if (const auto reason = states.reason())
    std::printf("no backends: %s\n", std::string(*reason).c_str());
  for (const StatesView::Backend& backend : states)
    std::printf("%s: %s, %s\n", std::string(backend.name).c_str(),
                std::string(backend.state).c_str(), std::string(backend.reason).c_str());
}

void showAnswer(Status status, const std::optional<std::string>&) {
  const Answer answer = Answer::current();
  if (!status)
    std::printf("event: %s\n", status.text());
  else if (answer.disposition == CORVID_DISPOSITION_DROPPED)
    std::printf("event: dropped, %s\n", std::string(answer.reason.value_or("?")).c_str());
  else
    std::printf("event: taken\n");
}

Status send(Session& session, Calls& calls) {
  const Dictionary info{
      {CORVID_KEY_CLIENT_TYPE, 9}, {CORVID_KEY_CLIENT_VERSION, 3}, {CORVID_KEY_BATCH_EVENT, true}};
  if (const Status status = session.setSessionInfo(info); !status) return status;
  const auto started = [](Status status, const std::optional<Array>&) {
    if (status) show(Answer::current().states);
  };
  if (const Status status = session.startConfig(started, calls.one()); !status) return status;

  Dictionary payload{{"action", "pause"}, {"position", 61.25}};
  const std::string reason = "telephone";
  if (const Status set = payload.set("reason", reason).set("seconds", 7u); !set) return set;
  if (const Status sent = session.sendMessage(7, 3, payload, showAnswer, calls.one()); !sent)
    return sent;
  const auto flushed = [](Status status, const std::optional<std::string>&,
                          const std::optional<Error>& error) {
    std::printf("flush: %s\n", !status ? status.text()
                               : error ? error->description.c_str()
                                       : "done");
  };
  return session.flush(flushed, calls.one());
}

}  // namespace

int main() {
  Calls calls;  // outlives the session, whose callbacks use it
  Session session;
  Status status = session.status();
  if (status) status = send(session, calls);
  if (!status) std::fprintf(stderr, "client: %s\n", status.text());
  return status && calls.await() ? 0 : 1;
}
