#include "bench/Workload.h"

#include <fmt/format.h>

#include <array>
#include <random>
#include <semaphore>
#include <stdexcept>

#include "tests/support/Waiting.h"

namespace corvid::bench {

// Freed when the call is over.
struct Session::Pending {
  Session* session;
  void (*onReply)(void* context);
  void* context;
};

void check(int result) {
  if (result != CORVID_OK) throw std::runtime_error(corvid_error_text(result));
}

namespace {

// As people write: it compresses about as their texts do.
std::string wordsOf(std::uint64_t number, std::size_t bytes) {
  constexpr std::array words{"buffer", "stalled", "player", "resumed",  "after",   "network",
                             "change", "from",    "wired",  "wireless", "quality", "lowered"};
  std::mt19937_64 random(number);
  std::string text;
  while (text.size() < bytes) text.append(words[random() % words.size()]).push_back(' ');
  text.resize(bytes);
  return text;
}

}  // namespace

corvid_dictionary_t* makePayload(std::uint64_t number, std::size_t textBytes) {
  corvid_dictionary_t* payload = corvid_dictionary_create();
  char text[40];
  fmt::format_to_n(text, sizeof text, "action-{:09}", number % 1000000000).out[0] = '\0';
  corvid_dictionary_set_string(payload, "action", text);
  fmt::format_to_n(text, sizeof text, "9f1c2a44-77d0-4c1e-8b3a-{:012}", number).out[0] = '\0';
  corvid_dictionary_set_string(payload, "streamIdentifier", text);
  corvid_dictionary_set_integer(payload, "n", static_cast<std::int64_t>(number));
  corvid_dictionary_set_integer(payload, "bitrate",
                                1'200'000 + static_cast<std::int64_t>(number % 977));
  corvid_dictionary_set_integer(payload, "dropped", static_cast<std::int64_t>(number % 31));
  corvid_dictionary_set_real(payload, "position", static_cast<double>(number) * 0.04);
  if (textBytes > 0)
    corvid_dictionary_set_string(payload, "note", wordsOf(number, textBytes).c_str());
  return payload;
}

Session::Session(const std::string& root, const Description& description)
    : _textBytes(description.textBytes) {
  corvid_options_t options = CORVID_OPTIONS_INIT;
  options.root = root.c_str();
  check(corvid_session_create(&options, &_session));
  corvid_dictionary_t* info = corvid_dictionary_create();
  corvid_dictionary_set_integer(info, kCorvidSessionInfoClientType, description.clientType);
  corvid_dictionary_set_integer(info, kCorvidSessionInfoSessionID, 42);
  corvid_dictionary_set_boolean(info, kCorvidSessionInfoRequireUserInfo, true);
  corvid_dictionary_set_boolean(info, kCorvidSessionInfoBatchEvent, true);
  corvid_dictionary_t* user = corvid_dictionary_create();
  corvid_dictionary_set_string(user, kCorvidUserInfoClientName, description.clientName);
  corvid_dictionary_set_string(user, kCorvidUserInfoServiceName, "Events");
  const int described = corvid_session_set_session_info(_session, info, user, nullptr,
                                                        description.aggregates, nullptr, nullptr);
  corvid_dictionary_destroy(info);
  corvid_dictionary_destroy(user);
  check(described);

  struct Started {
    std::binary_semaphore done{0};
    bool reporting = false;
  } started;
  check(corvid_session_start_config(
      _session,
      [](void* context, int, const corvid_array_t* states) {
        static_cast<Started*>(context)->reporting =
            states != nullptr && corvid_array_count(states) > 0;
      },
      [](void* context, corvid_outcome_t) { static_cast<Started*>(context)->done.release(); },
      &started));
  started.done.acquire();
  if (!started.reporting) throw std::runtime_error("the daemon reports for nobody; see its log");
}

Session::~Session() { corvid_session_destroy(_session); }

void Session::textAnswered(void* context, int error, const char*, std::size_t) {
  auto* pending = static_cast<Pending*>(context);
  ++(error == CORVID_OK ? pending->session->_answered : pending->session->_failed);
  if (pending->onReply) pending->onReply(pending->context);
}

void Session::flushAnswered(void* context, int error, const char*, std::size_t,
                            const corvid_error_t* failure) {
  auto* pending = static_cast<Pending*>(context);
  if (error != CORVID_OK || failure != nullptr) ++pending->session->_failed;
}

void Session::finished(void* context, corvid_outcome_t) {
  auto* pending = static_cast<Pending*>(context);
  ++pending->session->_ended;
  delete pending;
}

void Session::send(std::uint64_t number, bool realtime, void (*onReply)(void* context),
                   void* context) {
  auto* pending = new Pending{this, onReply, context};
  corvid_dictionary_t* payload = makePayload(number, _textBytes);
  int result = CORVID_OK;
  do {
    if (realtime) {
      corvid_dictionary_t* message = corvid_dictionary_create();
      corvid_dictionary_set_integer(message, kCorvidMessageParametersCategory, 7);
      corvid_dictionary_set_integer(message, kCorvidMessageParametersType, 2);
      corvid_dictionary_set_integer(message, kCorvidMessageParametersFlag, 1);
      corvid_dictionary_set_dictionary(message, kCorvidMessageParametersPayload, payload);
      result = corvid_session_send_message_with_dictionary(_session, message, textAnswered,
                                                           finished, pending);
      corvid_dictionary_destroy(message);
    } else {
      result =
          corvid_session_send_message(_session, 7, 2, payload, textAnswered, finished, pending);
    }
  } while (result == CORVID_ERROR_QUEUE_FULL);
  corvid_dictionary_destroy(payload);
  check(result);
  ++_made;
}

void Session::flush() {
  auto* pending = new Pending{this, nullptr, nullptr};
  int result = CORVID_OK;
  do result = corvid_session_flush(_session, flushAnswered, finished, pending);
  while (result == CORVID_ERROR_QUEUE_FULL);
  check(result);
  ++_made;
}

void Session::await() {
  if (!waitUntil([&] { return _ended >= _made; }, std::chrono::minutes(10),
                 std::chrono::microseconds(200)))
    throw std::runtime_error("the daemon has not answered every call");
}

}  // namespace corvid::bench
