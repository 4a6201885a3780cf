// A host in C of one session, which notes what its callbacks are told.
#pragma once

#include <corvid/corvid.h>

#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/Waiting.h"

namespace corvid {

// Each callback leaves a line: "connected", "states REASON / NAME STATE REASON, ...", "answer
// TEXT", "dropped REASON", "error CODE", "finished OUTCOME" and so on.
class Host {
 public:
  // To be completed before open().
  corvid_options_t options = CORVID_OPTIONS_INIT;
  corvid_session_t* session = nullptr;

  Host() {
    options.context = this;
    options.deadline_ms = 10000;
    options.message = [](void* context, const corvid_dictionary_t* message, double,
                         uint16_t category, uint16_t, const corvid_dictionary_t* payload) {
      of(context).note("message " + std::to_string(category) + (message ? " with" : " without") +
                       (payload ? " payload" : ""));
    };
    options.invalidated = [](void* context) { of(context).note("invalidated"); };
    options.reconnected = [](void* context) { of(context).note("reconnected"); };
    options.released = [](void* context) { of(context).note("released"); };
    options.connected = [](void* context) { of(context).note("connected"); };
    options.states_changed = [](void* context, const corvid_states_t* states) {
      of(context).note("states " + textOf(states));
    };
  }
  ~Host() { close(); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  int open() { return corvid_session_create(&options, &session); }
  void close() { corvid_session_destroy(std::exchange(session, nullptr)); }

  int describe(int clientType = 5) {
    corvid_dictionary_t* const info = corvid_dictionary_create();
    corvid_dictionary_set_integer(info, CORVID_KEY_CLIENT_TYPE, clientType);
    const int result =
        corvid_session_set_session_info(session, info, nullptr, nullptr, false, nullptr, nullptr);
    corvid_dictionary_destroy(info);
    return result;
  }
  int start() { return corvid_session_start_config(session, onStates, onFinished, this); }
  int send(uint16_t category = 1) {
    return corvid_session_send_message(session, category, 1, nullptr, onText, onFinished, this);
  }
  int flush() { return corvid_session_flush(session, onFlush, onFinished, this); }

  std::vector<std::string> lines() {
    std::vector<std::string> copy;
    _notice.change([&] { copy = _lines; });
    return copy;
  }
  // The lines of the threads that the callbacks ran on, without repetition.
  std::vector<std::thread::id> threads() {
    std::vector<std::thread::id> copy;
    _notice.change([&] { copy = _threads; });
    return copy;
  }
  std::size_t count(const std::string& line) {
    std::size_t result = 0;
    for (const std::string& each : lines()) result += each == line;
    return result;
  }
  bool await(const std::string& line, std::size_t times = 1) {
    return _notice.await([&] {
      std::size_t found = 0;
      for (const std::string& each : _lines) found += each == line;
      return found >= times;
    });
  }
  void note(const std::string& line) {
    _notice.change([&] {
      _lines.push_back(line);
      const auto thread = std::this_thread::get_id();
      if (_threads.empty() || _threads.back() != thread) _threads.push_back(thread);
    });
    if (onNote) onNote(line);
  }
  // Runs in each callback, after its line.
  std::function<void(const std::string& line)> onNote;

  static std::string textOf(const corvid_states_t* states) {
    std::string text;
    if (const char* reason = corvid_states_reason(states)) text = reason;
    for (std::size_t i = 0; i < corvid_states_count(states); ++i)
      text += std::string(i == 0 ? "" : ", ") + corvid_states_backend_name(states, i) + " " +
              corvid_states_backend_state(states, i) + " " +
              corvid_states_backend_reason(states, i);
    const corvid_array_t* const reporting = corvid_states_reporting(states);
    if (reporting == nullptr) return text + " / none";
    return text + " / " + std::to_string(corvid_array_count(reporting));
  }

  static void onText(void* context, int error, const char* text, std::size_t) {
    if (error != CORVID_OK) return of(context).note("error " + std::to_string(error));
    const corvid_answer_t* const answer = corvid_current_answer();
    const char* const reason = corvid_answer_reason(answer);
    switch (corvid_answer_disposition(answer)) {
      case CORVID_DISPOSITION_UNKNOWN:
        return of(context).note(std::string("answer ") + (text ? text : "none"));
      case CORVID_DISPOSITION_TAKEN:
        return of(context).note(std::string("taken ") + (text ? text : "none"));
      case CORVID_DISPOSITION_DROPPED:
        return of(context).note(std::string("dropped ") + reason + " " + (text ? text : "none"));
    }
  }
  static void onStates(void* context, int error, const corvid_array_t* states) {
    if (error != CORVID_OK) return of(context).note("error " + std::to_string(error));
    const corvid_states_t* const told = corvid_answer_states(corvid_current_answer());
    of(context).note("configured " + (told ? textOf(told) : "without reasons") + " / " +
                     (states ? std::to_string(corvid_array_count(states)) : "none"));
  }
  static void onFlush(void* context, int error, const char* text, std::size_t,
                      const corvid_error_t* failure) {
    if (error != CORVID_OK) return of(context).note("error " + std::to_string(error));
    of(context).note(std::string("flushed ") + (text ? text : "none") +
                     (failure ? std::string(" but ") + failure->description : ""));
  }
  static void onFinished(void* context, corvid_outcome_t outcome) {
    of(context).note("finished " + std::to_string(outcome));
  }

 private:
  static Host& of(void* context) { return *static_cast<Host*>(context); }

  Notice _notice;
  std::vector<std::string> _lines;
  std::vector<std::thread::id> _threads;
};

}  // namespace corvid
