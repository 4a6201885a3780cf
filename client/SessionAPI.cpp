// The functions of a session for C.
#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "base/URL.h"
#include "client/Call.h"
#include "client/Link.h"
#include "client/Opaque.h"
#include "client/Session.h"
#include "client/TestSink.h"
#include "client/UploadedFile.h"
#include "protocol/Keys.h"
#include "protocol/Limits.h"

struct corvid_session {
  const std::shared_ptr<corvid::library::Session> session;
  std::thread thread;  // serves the session
};

namespace {

using corvid::Array;
using corvid::Dictionary;
using corvid::library::Call;
using corvid::library::Completion;
using corvid::library::guarded;
using corvid::library::inside;
using corvid::library::Request;
using corvid::library::Session;
using corvid::library::UploadedFile;
using corvid::wire::Extent;
using corvid::wire::Fitness;

// Room for what travels around the values of a call.
constexpr std::size_t mostBytes = corvid::limits::messageBytes - 4096;

int fitnessOf(const Extent& extent) {
  if (extent.fitness == Fitness::tooDeep) return CORVID_ERROR_TOO_DEEP;
  const bool fits = extent.fitness == Fitness::fits && extent.bytes() <= mostBytes;
  return fits ? CORVID_OK : CORVID_ERROR_TOO_LARGE;
}

// Infos, which the daemon keeps for the session's life.
bool isTooLargeToKeep(const Extent& infos) {
  return infos.bytes() > corvid::limits::sessionInfoBytes;
}

template <class... Content>
Extent extentOf(const Content*... content) {
  Extent extent;
  const auto add = [&](const auto* each) {
    if (each != nullptr) extent.add(inside(each));
  };
  (add(content), ...);
  return extent;
}

std::optional<Dictionary> copyOf(const corvid_dictionary_t* dictionary) {
  if (dictionary == nullptr) return std::nullopt;
  return inside(dictionary);
}

// Hands the call of the request that `make` gives to the session, where what it carries may travel.
template <class Make>
int submit(corvid_session_t* session, const Extent& extent, Completion completion, Make make) {
  if (session == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  if (!session->session->isInItsProcess()) return CORVID_ERROR_FORKED;
  if (const int fitness = fitnessOf(extent); fitness != CORVID_OK) return fitness;
  return guarded(
      [&] { return session->session->submit(std::make_shared<Call>(make(), completion, extent)); });
}

std::string socketPath(const char* root) {
  if (root == nullptr) root = secure_getenv("CORVID_ROOT");
  std::string path = root ? root : "";
  while (path.ends_with('/')) path.pop_back();
  return path.append("/run/corvidd/").append(corvid::kCorvidServiceName);
}

}  // namespace

const char* corvid_version() { return CORVID_LIBRARY_VERSION; }

const char* corvid_error_text(int code) {
  switch (code) {
    case CORVID_OK: return "no error";
    case CORVID_ERROR_INVALID_ARGUMENT: return "invalid argument";
    case CORVID_ERROR_INVALID_TEXT: return "text is not UTF-8";
    case CORVID_ERROR_TOO_DEEP: return "values nested too deeply";
    case CORVID_ERROR_TOO_LARGE: return "too large";
    case CORVID_ERROR_WRONG_TYPE: return "value of another type";
    case CORVID_ERROR_QUEUE_FULL: return "queue full";
    case CORVID_ERROR_NOT_CONNECTED: return "daemon cannot be reached";
    case CORVID_ERROR_CONNECTION_LOST: return "connection lost";
    case CORVID_ERROR_CLOSED: return "session destroyed";
    case CORVID_ERROR_NOT_SUPPORTED: return "operation unknown to the daemon";
    case CORVID_ERROR_BAD_REPLY: return "reply cannot be understood";
    case CORVID_ERROR_FORKED: return "session of the parent process";
    case CORVID_ERROR_NO_MEMORY: return "out of memory";
    case CORVID_ERROR_SYSTEM: return "out of threads or descriptors";
    case CORVID_ERROR_TIMED_OUT: return "not answered in time";
    default: return "unknown error";
  }
}

int corvid_session_create(const corvid_options_t* options, corvid_session_t** session) {
  // As in the first version.
  constexpr std::size_t leastSize = offsetof(corvid_options_t, connected);
  if (session == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  corvid_options_t host = CORVID_OPTIONS_INIT;
  if (options != nullptr) {
    if (options->size < leastSize || options->size > sizeof host)
      return CORVID_ERROR_INVALID_ARGUMENT;
    std::memcpy(&host, options, options->size);
  }
  return guarded([&] {
    Session::Options chosen;
    chosen.deadline = std::chrono::milliseconds(host.deadline_ms);
    if (host.answer_deadline_ms > 0)
      chosen.answerDeadline = std::chrono::milliseconds(host.answer_deadline_ms);
    chosen.dispatches = host.dispatch;
    if (host.test_sink != nullptr) chosen.sink = host.test_sink->sink;
    chosen.socketPath = socketPath(host.root);
    host.root = nullptr;
    host.test_sink = nullptr;
    chosen.handlers = host;
    std::unique_ptr<corvid_session> created(
        new corvid_session{std::make_shared<Session>(std::move(chosen)), {}});
    created->thread = corvid::library::serve(created->session);
    *session = created.release();
    return CORVID_OK;
  });
}

void corvid_session_destroy(corvid_session_t* session) {
  if (session == nullptr || !session->session->isInItsProcess()) return;
  const std::unique_ptr<corvid_session> owned(session);
  corvid::library::Callbacks& callbacks = owned->session->callbacks();
  const bool inCallback = callbacks.runHere();
  owned->session->close();
  if (!inCallback) {
    owned->thread.join();
    callbacks.finish();
    return;
  }
  callbacks.finishLater();
  owned->thread.detach();
}

int corvid_session_get_fd(const corvid_session_t* session) {
  if (session == nullptr || !session->session->callbacks().wait()) return -1;
  return session->session->callbacks().descriptor();
}

int corvid_session_dispatch(corvid_session_t* session) {
  if (session == nullptr || !session->session->callbacks().wait())
    return CORVID_ERROR_INVALID_ARGUMENT;
  if (!session->session->isInItsProcess()) return CORVID_ERROR_FORKED;
  // A callback may destroy the session.
  return guarded([kept = session->session] { return kept->dispatch(), CORVID_OK; });
}

int corvid_session_connect(corvid_session_t* session) {
  if (session == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  if (!session->session->isInItsProcess()) return CORVID_ERROR_FORKED;
  return guarded([&] { return session->session->connect(); });
}

int corvid_session_set_session_info(corvid_session_t* session,
                                    const corvid_dictionary_t* session_info,
                                    const corvid_dictionary_t* user_info,
                                    const corvid_array_t* frameworks, bool has_aggregation_block,
                                    corvid_finished_callback_t finished, void* context) {
  if (session_info == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  const Extent extent = extentOf(session_info, user_info, frameworks);
  if (isTooLargeToKeep(extent)) return CORVID_ERROR_TOO_LARGE;
  return submit(session, extent, {finished, context}, [&] {
    return Request{.operation = CORVID_OPERATION_SET_SESSION_INFO,
                   .sessionInfo = inside(session_info),
                   .userInfo = copyOf(user_info),
                   .array = frameworks != nullptr ? inside(frameworks) : Array(),
                   .hasAggregationBlock = has_aggregation_block};
  });
}

int corvid_session_start_config(corvid_session_t* session, corvid_states_callback_t callback,
                                corvid_finished_callback_t finished, void* context) {
  return submit(session, {}, {callback, finished, context},
                [] { return Request{.operation = CORVID_OPERATION_START_CONFIG}; });
}

int corvid_session_fetch_states(corvid_session_t* session, const corvid_dictionary_t* user_info,
                                corvid_states_callback_t callback,
                                corvid_finished_callback_t finished, void* context) {
  const Extent extent = extentOf(user_info);
  if (isTooLargeToKeep(extent)) return CORVID_ERROR_TOO_LARGE;
  return submit(session, extent, {callback, finished, context}, [&] {
    return Request{.operation = CORVID_OPERATION_FETCH_STATES, .userInfo = copyOf(user_info)};
  });
}

int corvid_session_fetch_display_url(corvid_session_t* session, corvid_text_callback_t callback,
                                     corvid_finished_callback_t finished, void* context) {
  return submit(session, {}, {callback, finished, context},
                [] { return Request{.operation = CORVID_OPERATION_FETCH_DISPLAY_URL}; });
}

int corvid_session_send_message(corvid_session_t* session, uint16_t category, uint16_t type,
                                const corvid_dictionary_t* payload, corvid_text_callback_t callback,
                                corvid_finished_callback_t finished, void* context) {
  return submit(session, extentOf(payload), {callback, finished, context}, [&] {
    return Request{.operation = CORVID_OPERATION_SEND_MESSAGE,
                   .content = copyOf(payload),
                   .category = category,
                   .type = type};
  });
}

int corvid_session_send_message_with_dictionary(corvid_session_t* session,
                                                const corvid_dictionary_t* message,
                                                corvid_text_callback_t callback,
                                                corvid_finished_callback_t finished,
                                                void* context) {
  if (message == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  return submit(session, extentOf(message), {callback, finished, context}, [&] {
    return Request{.operation = CORVID_OPERATION_SEND_MESSAGE_WITH_DICTIONARY,
                   .content = inside(message)};
  });
}

int corvid_session_flush(corvid_session_t* session, corvid_flush_callback_t callback,
                         corvid_finished_callback_t finished, void* context) {
  return submit(session, {}, {callback, finished, context},
                [] { return Request{.operation = CORVID_OPERATION_FLUSH}; });
}

int corvid_session_finish(corvid_session_t* session, corvid_text_callback_t callback,
                          corvid_finished_callback_t finished, void* context) {
  return submit(session, {}, {callback, finished, context},
                [] { return Request{.operation = CORVID_OPERATION_FINISH}; });
}

int corvid_session_upload_file(corvid_session_t* session, const char* path,
                               corvid_success_callback_t callback,
                               corvid_finished_callback_t finished, void* context) {
  if (path == nullptr || *path == '\0') return CORVID_ERROR_INVALID_ARGUMENT;
  return guarded([&] {
    std::error_code error;
    const std::filesystem::path absolute = std::filesystem::absolute(path, error);
    if (error) return static_cast<int>(CORVID_ERROR_SYSTEM);
    std::string url = "file://" + corvid::percentEncodedForPath(absolute.native());
    if (url.size() > corvid::limits::fileURLBytes) return static_cast<int>(CORVID_ERROR_TOO_LARGE);
    std::shared_ptr<UploadedFile> file;
    if (const int result = UploadedFile::open(absolute, file); result != CORVID_OK) return result;
    Extent extent;
    extent.addText(url);
    return submit(session, extent, {callback, finished, context}, [&] {
      return Request{.operation = CORVID_OPERATION_UPLOAD_FILE,
                     .fileURL = std::move(url),
                     .file = std::move(file)};
    });
  });
}

int corvid_session_upload_log_data(corvid_session_t* session, const corvid_array_t* log_data,
                                   corvid_success_callback_t callback,
                                   corvid_finished_callback_t finished, void* context) {
  if (log_data == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  return submit(session, extentOf(log_data), {callback, finished, context}, [&] {
    return Request{.operation = CORVID_OPERATION_UPLOAD_LOG_DATA, .array = inside(log_data)};
  });
}

int corvid_session_send_single_message(corvid_session_t* session,
                                       const corvid_dictionary_t* session_info,
                                       const corvid_dictionary_t* user_info, uint16_t category,
                                       uint16_t type, const corvid_dictionary_t* payload,
                                       corvid_text_callback_t callback,
                                       corvid_finished_callback_t finished, void* context) {
  if (session_info == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  if (isTooLargeToKeep(extentOf(session_info, user_info))) return CORVID_ERROR_TOO_LARGE;
  return submit(session, extentOf(session_info, user_info, payload), {callback, finished, context},
                [&] {
                  return Request{.operation = CORVID_OPERATION_SEND_SINGLE_MESSAGE,
                                 .sessionInfo = inside(session_info),
                                 .userInfo = copyOf(user_info),
                                 .content = copyOf(payload),
                                 .category = category,
                                 .type = type};
                });
}
