// libcorvid for C++17 and later: owners and std::function callbacks over corvid.h, whose contract
// holds here too. Header only, and nothing here throws: it can be used with -fno-exceptions. A lack
// of memory is a status, or, where the standard library finds it, what that makes of it.
#ifndef CORVID_CORVID_HPP
#define CORVID_CORVID_HPP

#include <corvid/corvid.h>

#include <chrono>
#include <corvid/values.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace corvid::client {

// The states of a session that somebody else owns: its backends, what each does and why; or none.
class StatesView {
 public:
  struct Backend {
    std::string_view name;
    std::string_view state;   // waiting, disabled, sending or held
    std::string_view reason;  // a word of the closed list
  };
  using Iterator = ViewIterator<StatesView, Backend>;

  explicit StatesView(const corvid_states_t* states) : _states(states) {}
  explicit operator bool() const { return _states != nullptr; }
  const corvid_states_t* get() const { return _states; }
  // Why the session has no backends; nothing where it has.
  std::optional<std::string_view> reason() const { return textOf(corvid_states_reason(_states)); }
  std::size_t size() const { return corvid_states_count(_states); }
  Backend at(std::size_t index) const {
    return {textOf(corvid_states_backend_name(_states, index)).value_or(std::string_view()),
            textOf(corvid_states_backend_state(_states, index)).value_or(std::string_view()),
            textOf(corvid_states_backend_reason(_states, index)).value_or(std::string_view())};
  }
  Backend operator[](std::size_t index) const { return at(index); }
  Iterator begin() const { return Iterator(*this, 0); }
  Iterator end() const { return Iterator(*this, size()); }
  // The names of those that report.
  ArrayView reporting() const { return ArrayView(corvid_states_reporting(_states)); }

 private:
  static std::optional<std::string_view> textOf(const char* text) {
    return text ? std::optional(std::string_view(text)) : std::nullopt;
  }
  const corvid_states_t* _states;
};

// The answer that the callback running on this thread was called with.
struct Answer {
  corvid_disposition_t disposition = CORVID_DISPOSITION_UNKNOWN;
  // Why nobody took the message; nothing where somebody did, or where that is not known.
  std::optional<std::string_view> reason;
  // Of startConfig and fetchStates, else none.
  StatesView states{nullptr};

  // In a callback, and valid until that returns.
  static Answer current() {
    const corvid_answer_t* const answer = corvid_current_answer();
    const char* const reason = corvid_answer_reason(answer);
    return {corvid_answer_disposition(answer),
            reason ? std::optional(std::string_view(reason)) : std::nullopt,
            StatesView(corvid_answer_states(answer))};
  }
};

// An error object of the daemon.
struct Error {
  std::string domain;
  std::int64_t code = 0;
  std::string description;
};

// A session with the daemon. Callbacks run on the session's thread and must not throw.
class Session {
 public:
  using TextCallback = std::function<void(Status, std::optional<std::string> text)>;
  using StatesCallback = std::function<void(Status, std::optional<Array> states)>;
  using FlushCallback =
      std::function<void(Status, std::optional<std::string> text, std::optional<Error>)>;
  using SuccessCallback = std::function<void(Status, bool success, std::optional<Error>)>;
  // Told of the end of a call in every case, after its callback.
  using Finished = std::function<void(corvid_outcome_t)>;

  struct Options {
    // Empty: $CORVID_ROOT, or "/".
    std::string root;
    std::chrono::milliseconds deadline{CORVID_DEFAULT_DEADLINE_MS};
    std::function<void(DictionaryView message, double timestamp, std::uint16_t category,
                       std::uint16_t type, DictionaryView payload)>
        message;
    std::function<void()> invalidated;
    std::function<void()> reconnected;
    std::function<void()> connected;
    // The states or their reasons have changed. With this handler the session asks to be told.
    std::function<void(StatesView)> statesChanged;
    // The longest from the acceptance of a call to its answer; 0: none.
    std::chrono::milliseconds answerDeadline{0};
    // Callbacks wait for Session::dispatch().
    bool dispatch = false;
    // Answers in place of a daemon; borrowed. See corvid/testing.hpp.
    corvid_test_sink_t* testSink = nullptr;
  };

  // A session that could not be created refuses every call; status() says why.
  Session() : Session(Options()) {}
  explicit Session(Options options) {
    auto kept = std::make_unique<Options>(std::move(options));
    corvid_options_t c = CORVID_OPTIONS_INIT;
    if (!kept->root.empty()) c.root = kept->root.c_str();
    c.deadline_ms = static_cast<std::uint32_t>(kept->deadline.count());
    c.answer_deadline_ms = static_cast<std::uint32_t>(kept->answerDeadline.count());
    c.dispatch = kept->dispatch;
    c.test_sink = kept->testSink;
    c.context = kept.get();
    if (kept->message) c.message = &Session::message;
    if (kept->invalidated) c.invalidated = [](void* o) { static_cast<Options*>(o)->invalidated(); };
    if (kept->reconnected) c.reconnected = [](void* o) { static_cast<Options*>(o)->reconnected(); };
    if (kept->connected) c.connected = [](void* o) { static_cast<Options*>(o)->connected(); };
    if (kept->statesChanged)
      c.states_changed = [](void* o, const corvid_states_t* states) {
        static_cast<Options*>(o)->statesChanged(StatesView(states));
      };
    c.released = [](void* o) { delete static_cast<Options*>(o); };
    corvid_session_t* session = nullptr;
    _status = corvid_session_create(&c, &session);
    _session.reset(session);
    if (_status) static_cast<void>(kept.release());
  }

  Status status() const { return _status; }
  corvid_session_t* get() const { return _session.get(); }

  Status connect() { return corvid_session_connect(_session.get()); }

  // For event loops, with Options::dispatch: readable while callbacks wait, which dispatch() runs.
  int fd() const { return corvid_session_get_fd(_session.get()); }
  Status dispatch() { return corvid_session_dispatch(_session.get()); }

  // The operations. A dictionary or array with a failed status() is refused with that.

  Status setSessionInfo(DictionaryView sessionInfo, DictionaryView userInfo = none(),
                        ArrayView frameworks = ArrayView(nullptr), bool hasAggregationBlock = false,
                        Finished finished = nullptr) {
    const Status sound =
        firstFailure({sessionInfo.status(), userInfo.status(), frameworks.status()});
    if (!sound) return sound;
    return perform<TextCallback>(nullptr, std::move(finished), [&](auto, auto end, void* context) {
      return corvid_session_set_session_info(_session.get(), sessionInfo.get(), userInfo.get(),
                                             frameworks.get(), hasAggregationBlock, end, context);
    });
  }
  Status startConfig(StatesCallback callback = nullptr, Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_start_config);
  }
  Status fetchStates(DictionaryView userInfo, StatesCallback callback = nullptr,
                     Finished finished = nullptr) {
    if (!userInfo.status()) return userInfo.status();
    return call(std::move(callback), std::move(finished), corvid_session_fetch_states,
                userInfo.get());
  }
  Status fetchDisplayURL(TextCallback callback, Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_fetch_display_url);
  }
  Status sendMessage(std::uint16_t category, std::uint16_t type, DictionaryView payload = none(),
                     TextCallback callback = nullptr, Finished finished = nullptr) {
    if (!payload.status()) return payload.status();
    return call(std::move(callback), std::move(finished), corvid_session_send_message, category,
                type, payload.get());
  }
  Status sendMessage(DictionaryView message, TextCallback callback = nullptr,
                     Finished finished = nullptr) {
    if (!message.status()) return message.status();
    return call(std::move(callback), std::move(finished),
                corvid_session_send_message_with_dictionary, message.get());
  }
  Status flush(FlushCallback callback = nullptr, Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_flush);
  }
  Status finish(TextCallback callback = nullptr, Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_finish);
  }
  Status uploadFile(const std::string& path, SuccessCallback callback = nullptr,
                    Finished finished = nullptr) {
    return call(std::move(callback), std::move(finished), corvid_session_upload_file, path.c_str());
  }
  Status uploadLogData(ArrayView logData, SuccessCallback callback = nullptr,
                       Finished finished = nullptr) {
    if (!logData.status()) return logData.status();
    return call(std::move(callback), std::move(finished), corvid_session_upload_log_data,
                logData.get());
  }
  Status sendSingleMessage(DictionaryView sessionInfo, DictionaryView userInfo,
                           std::uint16_t category, std::uint16_t type,
                           DictionaryView payload = none(), TextCallback callback = nullptr,
                           Finished finished = nullptr) {
    const Status sound = firstFailure({sessionInfo.status(), userInfo.status(), payload.status()});
    if (!sound) return sound;
    return call(std::move(callback), std::move(finished), corvid_session_send_single_message,
                sessionInfo.get(), userInfo.get(), category, type, payload.get());
  }

  static DictionaryView none() { return DictionaryView(nullptr); }

 private:
  template <class Callback>
  struct Pending {
    Callback callback;
    Finished finished;
  };

  static Status firstFailure(std::initializer_list<Status> all) {
    for (const Status each : all)
      if (!each) return each;
    return CORVID_OK;
  }

  static void message(void* options, const corvid_dictionary_t* message, double timestamp,
                      std::uint16_t category, std::uint16_t type,
                      const corvid_dictionary_t* payload) {
    static_cast<Options*>(options)->message(DictionaryView(message), timestamp, category, type,
                                            DictionaryView(payload));
  }
  static std::optional<Error> errorOf(const corvid_error_t* error) {
    if (error == nullptr) return std::nullopt;
    return Error{error->domain, error->code, error->description};
  }
  static std::optional<std::string> textOf(const char* text, std::size_t length) {
    if (text == nullptr) return std::nullopt;
    return std::string(text, length);
  }

  // The C callback that goes with each kind of std::function.
  static corvid_text_callback_t replyOf(const TextCallback&) {
    return [](void* context, int error, const char* text, std::size_t length) {
      static_cast<Pending<TextCallback>*>(context)->callback(error, textOf(text, length));
    };
  }
  static corvid_states_callback_t replyOf(const StatesCallback&) {
    return [](void* context, int error, const corvid_array_t* states) {
      std::optional<Array> copy;
      if (states != nullptr) copy.emplace(ArrayView(states));
      static_cast<Pending<StatesCallback>*>(context)->callback(error, std::move(copy));
    };
  }
  static corvid_flush_callback_t replyOf(const FlushCallback&) {
    return [](void* context, int error, const char* text, std::size_t length,
              const corvid_error_t* failure) {
      static_cast<Pending<FlushCallback>*>(context)->callback(error, textOf(text, length),
                                                              errorOf(failure));
    };
  }
  static corvid_success_callback_t replyOf(const SuccessCallback&) {
    return [](void* context, int error, bool success, const corvid_error_t* failure) {
      static_cast<Pending<SuccessCallback>*>(context)->callback(error, success, errorOf(failure));
    };
  }

  // Makes a call with a function that takes the session, `arguments`, and the callbacks.
  template <class Callback, class Function, class... Arguments>
  Status call(Callback callback, Finished finished, Function function, Arguments... arguments) {
    return perform(std::move(callback), std::move(finished),
                   [&](auto reply, auto end, void* context) {
                     return function(_session.get(), arguments..., reply, end, context);
                   });
  }
  template <class Callback, class Function>
  static Status perform(Callback callback, Finished finished, Function function) {
    auto pending = std::make_unique<Pending<Callback>>(
        Pending<Callback>{std::move(callback), std::move(finished)});
    auto reply = pending->callback ? replyOf(pending->callback) : nullptr;
    const corvid_finished_callback_t end = [](void* context, corvid_outcome_t outcome) {
      const std::unique_ptr<Pending<Callback>> owned(static_cast<Pending<Callback>*>(context));
      if (owned->finished) owned->finished(outcome);
    };
    const Status status = function(reply, end, pending.get());
    if (status) static_cast<void>(pending.release());
    return status;
  }

  Status _status = CORVID_OK;
  Owner<corvid_session_t, corvid_session_destroy> _session;
};

}  // namespace corvid::client

#endif  // CORVID_CORVID_HPP
