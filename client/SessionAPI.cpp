// The functions of a session for C.
#include <cstdlib>
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
using corvid::library::Completion;
using corvid::library::Daemon;
using corvid::library::Event;
using corvid::library::guarded;
using corvid::library::inside;
using corvid::library::Replay;
using corvid::library::Session;
using corvid::library::SessionInfo;
using corvid::library::SingleCall;
using corvid::library::UploadedFile;
using corvid::wire::encode;
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

struct Nothing {
  template <class Target>
  void operator()(Target&) const {}
};

// Hands the call that `make` gives to the session, where what it carries may travel.
template <class Make>
int submit(corvid_session_t* session, const Extent& extent, Make make) {
  if (session == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  if (!session->session->isInItsProcess()) return CORVID_ERROR_FORKED;
  if (const int fitness = fitnessOf(extent); fitness != CORVID_OK) return fitness;
  return guarded([&] { return session->session->submit(make()); });
}

// The same with a call of `request`, an operation of the daemon: see SingleCall.
template <class Callback, class Request, class Fill = Nothing, class Note = Nothing>
int submit(corvid_session_t* session, const Extent& extent, Completion<Callback> completion,
           Request request, Fill fill = {}, Note note = {}) {
  return submit(session, extent, [&] {
    return std::make_unique<SingleCall<Callback, Request, Fill, Note>>(
        extent, completion, request, std::move(fill), std::move(note));
  });
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
    default: return "unknown error";
  }
}

int corvid_session_create(const corvid_options_t* options, corvid_session_t** session) {
  if (session == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  if (options != nullptr && options->size != sizeof *options) return CORVID_ERROR_INVALID_ARGUMENT;
  return guarded([&] {
    Session::Options chosen;
    if (options != nullptr) {
      chosen.deadline = std::chrono::milliseconds(options->deadline_ms);
      chosen.handlers = *options;
    }
    chosen.socketPath = socketPath(options ? options->root : nullptr);
    chosen.handlers.root = nullptr;
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
  owned->session->close();
  if (owned->thread.get_id() == std::this_thread::get_id())
    owned->thread.detach();  // in a callback of the session
  else
    owned->thread.join();
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
  return guarded([&] {
    const auto info = std::make_shared<const SessionInfo>(
        SessionInfo{inside(session_info), copyOf(user_info),
                    frameworks != nullptr ? inside(frameworks) : Array(), has_aggregation_block});
    return submit(
        session, extent, Completion{nullptr, finished, context}, &Daemon::setSessionInfoRequest,
        [info](auto& request) { info->encode(request); },
        [info](Replay& replay) { replay.sessionInfo = info; });
  });
}

int corvid_session_start_config(corvid_session_t* session, corvid_states_callback_t callback,
                                corvid_finished_callback_t finished, void* context) {
  return submit(session, {}, Completion{callback, finished, context}, &Daemon::startConfigRequest,
                Nothing(), [](Replay& replay) { replay.startConfig = true; });
}

int corvid_session_fetch_states(corvid_session_t* session, const corvid_dictionary_t* user_info,
                                corvid_states_callback_t callback,
                                corvid_finished_callback_t finished, void* context) {
  const Extent extent = extentOf(user_info);
  if (isTooLargeToKeep(extent)) return CORVID_ERROR_TOO_LARGE;
  return guarded([&] {
    const auto info = std::make_shared<const std::optional<Dictionary>>(copyOf(user_info));
    return submit(
        session, extent, Completion{callback, finished, context}, &Daemon::fetchStatesRequest,
        [info](auto& request) {
          encode(*info, [&](auto size) { return request.initUserInfo(size); });
        },
        [info](Replay& replay) { replay.replaceUserInfo(*info); });
  });
}

int corvid_session_fetch_display_url(corvid_session_t* session, corvid_text_callback_t callback,
                                     corvid_finished_callback_t finished, void* context) {
  return submit(session, {}, Completion{callback, finished, context},
                &Daemon::fetchDisplayURLRequest);
}

int corvid_session_send_message(corvid_session_t* session, uint16_t category, uint16_t type,
                                const corvid_dictionary_t* payload, corvid_text_callback_t callback,
                                corvid_finished_callback_t finished, void* context) {
  const Extent extent = extentOf(payload);
  return submit(session, extent, [&] {
    return std::make_unique<Event>(Event::Kind{category, type}, copyOf(payload), extent,
                                   Completion{callback, finished, context});
  });
}

int corvid_session_send_message_with_dictionary(corvid_session_t* session,
                                                const corvid_dictionary_t* message,
                                                corvid_text_callback_t callback,
                                                corvid_finished_callback_t finished,
                                                void* context) {
  if (message == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  const Extent extent = extentOf(message);
  return submit(session, extent, [&] {
    return std::make_unique<Event>(std::nullopt, inside(message), extent,
                                   Completion{callback, finished, context});
  });
}

int corvid_session_flush(corvid_session_t* session, corvid_flush_callback_t callback,
                         corvid_finished_callback_t finished, void* context) {
  return submit(session, {}, Completion{callback, finished, context}, &Daemon::flushRequest);
}

int corvid_session_finish(corvid_session_t* session, corvid_text_callback_t callback,
                          corvid_finished_callback_t finished, void* context) {
  return submit(session, {}, Completion{callback, finished, context}, &Daemon::finishRequest);
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
    kj::Own<UploadedFile> file;
    if (const int result = UploadedFile::open(absolute, file); result != CORVID_OK) return result;
    Extent extent;
    extent.addText(url);
    return submit(session, extent, Completion{callback, finished, context},
                  &Daemon::uploadFileRequest,
                  [url = std::move(url), file = std::move(file)](auto& request) mutable {
                    request.setFileURL(corvid::wire::textReader(url));
                    // Without a file the daemon hears of the URL all the same, and refuses it.
                    if (file.get() != nullptr) request.setFile(std::move(file));
                  });
  });
}

int corvid_session_upload_log_data(corvid_session_t* session, const corvid_array_t* log_data,
                                   corvid_success_callback_t callback,
                                   corvid_finished_callback_t finished, void* context) {
  if (log_data == nullptr) return CORVID_ERROR_INVALID_ARGUMENT;
  return guarded([&] {
    return submit(session, extentOf(log_data), Completion{callback, finished, context},
                  &Daemon::uploadLogDataRequest, [logData = inside(log_data)](auto& request) {
                    encode(logData, [&](auto size) { return request.initLogData(size); });
                  });
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
  return guarded([&] {
    return submit(session, extentOf(session_info, user_info, payload),
                  Completion{callback, finished, context}, &Daemon::sendSingleMessageRequest,
                  [sessionInfo = inside(session_info), userInfo = copyOf(user_info), category, type,
                   payload = copyOf(payload)](auto& request) {
                    encode(sessionInfo, [&](auto size) { return request.initSessionInfo(size); });
                    encode(userInfo, [&](auto size) { return request.initUserInfo(size); });
                    request.setCategory(category);
                    request.setType(type);
                    encode(payload, [&](auto size) { return request.initPayload(size); });
                  });
  });
}
