#include "tools/corvidctl/Client.h"

#include <fmt/format.h>
#include <sys/un.h>

#include <chrono>
#include <semaphore>
#include <utility>

#include "platform/Paths.h"
#include "tools/corvidctl/ClientValues.h"

namespace corvid::ctl {

namespace {

// The context of one call, on the caller's stack: `finished` is the last that touches it.
struct Call {
  CallOutcome outcome;
  int error = CORVID_OK;
  std::binary_semaphore done{0};
};

Call& callOf(void* context) { return *static_cast<Call*>(context); }

std::optional<CorvidError> errorFrom(const corvid_error_t* failure) {
  if (failure == nullptr) return std::nullopt;
  return CorvidError{failure->domain, failure->code, failure->description};
}

void textAnswered(void* context, int error, const char* text, std::size_t length) {
  Call& call = callOf(context);
  call.error = error;
  if (text != nullptr) call.outcome.text.emplace(text, length);
}

void statesAnswered(void* context, int error, const corvid_array_t* states) {
  Call& call = callOf(context);
  call.error = error;
  if (states != nullptr) call.outcome.states = arrayFrom(states);
}

void flushAnswered(void* context, int error, const char* text, std::size_t length,
                   const corvid_error_t* failure) {
  textAnswered(context, error, text, length);
  callOf(context).outcome.failure = errorFrom(failure);
}

void successAnswered(void* context, int error, bool success, const corvid_error_t* failure) {
  Call& call = callOf(context);
  call.error = error;
  call.outcome.success = success;
  call.outcome.failure = errorFrom(failure);
}

void finished(void* context, corvid_outcome_t outcome) {
  callOf(context).outcome.end = outcome;
  callOf(context).done.release();
}

// Why there is no connection to the daemon below `root`.
std::string reasonOf(int error, const std::string& root) {
  const std::string socket = Paths(root).socket;
  if (error != CORVID_ERROR_NOT_CONNECTED) return corvid_error_text(error);
  if (socket.size() >= sizeof(sockaddr_un::sun_path))
    return fmt::format("the path of the daemon's socket, {}, is longer than the system takes",
                       socket);
  return fmt::format("no daemon serves {} (corvidd does not run, or runs with another --root)",
                     socket);
}

ClientDictionary dictionaryOrNull(const std::optional<Dictionary>& dictionary) {
  return dictionary ? clientDictionary(*dictionary) : nullptr;
}

}  // namespace

Client::Client(const std::string& root, Handlers handlers) : _handlers(std::move(handlers)) {
  corvid_options_t options = CORVID_OPTIONS_INIT;
  options.root = root.c_str();
  options.context = this;
  options.message = [](void* context, const corvid_dictionary_t* message, double timestamp,
                       std::uint16_t category, std::uint16_t type,
                       const corvid_dictionary_t* payload) {
    const auto& handler = static_cast<Client*>(context)->_handlers.message;
    if (!handler) return;
    handler(message ? std::optional(dictionaryFrom(message)) : std::nullopt, timestamp, category,
            type, payload ? std::optional(dictionaryFrom(payload)) : std::nullopt);
  };
  options.invalidated = [](void* context) { static_cast<Client*>(context)->invalidated(); };
  if (const int error = corvid_session_create(&options, &_session); error != CORVID_OK)
    throw CallError(corvid_error_text(error));
  if (const int error = corvid_session_connect(_session); error != CORVID_OK) {
    corvid_session_destroy(_session);
    throw CallError(reasonOf(error, root));
  }
}

Client::~Client() { corvid_session_destroy(_session); }

void Client::invalidated() {
  if (_handlers.invalidated) _handlers.invalidated();
  const MutexLock lock(_mutex);
  _isInvalidated = true;
  _changed.notify_all();
}

void Client::failWithConnection() {
  // The library tells calls first; a connection that breaks ends its session soon after.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  const MutexLock lock(_mutex);
  while (!_isInvalidated && _changed.wait_until(_mutex, deadline) == std::cv_status::no_timeout) {
  }
  throw CallError(
      "the daemon closed the connection (it ended, or this user is not entitled; its log says why)");
}

// Makes the call through `make(call)` and waits for its end.
template <class Make>
CallOutcome Client::perform(Make make) {
  Call call;
  const int refused = make(&call);
  if (refused == CORVID_ERROR_NOT_CONNECTED) failWithConnection();  // there was one
  if (refused != CORVID_OK) throw CallError(corvid_error_text(refused));
  call.done.acquire();
  if (call.outcome.end == CORVID_OUTCOME_FAILED) {
    // A call without a callback is not told why it failed.
    if (call.error == CORVID_OK || call.error == CORVID_ERROR_CONNECTION_LOST) failWithConnection();
    throw CallError(corvid_error_text(call.error));
  }
  return std::move(call.outcome);
}

CallOutcome Client::setSessionInfo(const Dictionary& sessionInfo,
                                   const std::optional<Dictionary>& userInfo,
                                   const Array& frameworks, bool hasAggregationBlock) {
  return perform([&](Call* call) {
    return corvid_session_set_session_info(
        _session, clientDictionary(sessionInfo).get(), dictionaryOrNull(userInfo).get(),
        clientArray(frameworks).get(), hasAggregationBlock, finished, call);
  });
}

CallOutcome Client::startConfig(bool reply) {
  return perform([&](Call* call) {
    return corvid_session_start_config(_session, reply ? statesAnswered : nullptr, finished, call);
  });
}

CallOutcome Client::fetchStates(const std::optional<Dictionary>& userInfo, bool reply) {
  return perform([&](Call* call) {
    return corvid_session_fetch_states(_session, dictionaryOrNull(userInfo).get(),
                                       reply ? statesAnswered : nullptr, finished, call);
  });
}

CallOutcome Client::fetchDisplayURL(bool reply) {
  return perform([&](Call* call) {
    return corvid_session_fetch_display_url(_session, reply ? textAnswered : nullptr, finished,
                                            call);
  });
}

CallOutcome Client::sendMessage(std::uint16_t category, std::uint16_t type,
                                const std::optional<Dictionary>& payload, bool reply) {
  return perform([&](Call* call) {
    return corvid_session_send_message(_session, category, type, dictionaryOrNull(payload).get(),
                                       reply ? textAnswered : nullptr, finished, call);
  });
}

CallOutcome Client::sendMessageWithDictionary(const Dictionary& message, bool reply) {
  return perform([&](Call* call) {
    return corvid_session_send_message_with_dictionary(
        _session, clientDictionary(message).get(), reply ? textAnswered : nullptr, finished, call);
  });
}

CallOutcome Client::flush(bool reply) {
  return perform([&](Call* call) {
    return corvid_session_flush(_session, reply ? flushAnswered : nullptr, finished, call);
  });
}

CallOutcome Client::finish(bool reply) {
  return perform([&](Call* call) {
    return corvid_session_finish(_session, reply ? textAnswered : nullptr, finished, call);
  });
}

CallOutcome Client::uploadFile(const std::string& path, bool reply) {
  return perform([&](Call* call) {
    return corvid_session_upload_file(_session, path.c_str(), reply ? successAnswered : nullptr,
                                      finished, call);
  });
}

CallOutcome Client::uploadLogData(const Array& logData, bool reply) {
  return perform([&](Call* call) {
    return corvid_session_upload_log_data(_session, clientArray(logData).get(),
                                          reply ? successAnswered : nullptr, finished, call);
  });
}

CallOutcome Client::sendSingleMessage(const Dictionary& sessionInfo,
                                      const std::optional<Dictionary>& userInfo,
                                      std::uint16_t category, std::uint16_t type,
                                      const std::optional<Dictionary>& payload, bool reply) {
  return perform([&](Call* call) {
    return corvid_session_send_single_message(
        _session, clientDictionary(sessionInfo).get(), dictionaryOrNull(userInfo).get(), category,
        type, dictionaryOrNull(payload).get(), reply ? textAnswered : nullptr, finished, call);
  });
}

}  // namespace corvid::ctl
