#include "client/Call.h"

#include <exception>
#include <string>

#include "base/Reading.h"
#include "client/Opaque.h"
#include "protocol/Keys.h"
#include "protocol/Limits.h"

namespace corvid::library {

namespace {

using wire::ValueDecoder;
using wire::ValueList;

capnp::uint count(std::size_t size) { return static_cast<capnp::uint>(size); }

// Fills the list that `init` makes, where there is a dictionary.
template <class Init>
void encodeOptional(const std::optional<Dictionary>& dictionary, Init init) {
  if (dictionary) wire::encode(*dictionary, init(count(dictionary->size())));
}

// What travels in one call: enough that its cost no longer counts, little enough that the daemon's
// answers keep coming.
constexpr std::size_t mostEvents = 64;
constexpr std::size_t mostWords = (std::size_t{256} << 10) / sizeof(capnp::word);
static_assert(mostEvents <= limits::messagesPerCall);

capnp::MessageSize sizeHint(const wire::Extent& extent) {
  constexpr std::size_t envelope = 64;
  return {extent.words + envelope, 0};
}

// Hands a failed call's error to a callback of whatever kind.
void report(corvid_text_callback_t callback, void* context, int error) {
  callback(context, error, nullptr, 0);
}
void report(corvid_states_callback_t callback, void* context, int error) {
  callback(context, error, nullptr);
}
void report(corvid_flush_callback_t callback, void* context, int error) {
  callback(context, error, nullptr, 0, nullptr);
}
void report(corvid_success_callback_t callback, void* context, int error) {
  callback(context, error, false, nullptr);
}
void report(NoCallback callback, void* context, int error) { callback(context, error); }

template <class Callback>
void failCompletion(const Completion<Callback>& completion, int error) {
  if (completion.callback != nullptr) report(completion.callback, completion.context, error);
  completion.end(CORVID_OUTCOME_FAILED);
}

template <class Callback>
void endUnanswered(const Completion<Callback>& completion) {
  completion.end(completion.wantsReply() ? CORVID_OUTCOME_UNANSWERED : CORVID_OUTCOME_DONE);
}

void answerText(const TextHandler& handler, wire::TextResult::Reader result) {
  if (!handler.wantsReply() || result.isUnanswered()) return endUnanswered(handler);
  if (result.isText()) {
    const std::string text = ValueDecoder().text(result.getText());
    handler.callback(handler.context, CORVID_OK, text.c_str(), text.size());
  } else {
    handler.callback(handler.context, CORVID_OK, nullptr, 0);
  }
  handler.end(CORVID_OUTCOME_ANSWERED);
}

// The daemon's error object, for as long as this lives.
class ErrorView {
 public:
  template <class Results>
  explicit ErrorView(const Results& results) : _present(results.hasError()) {
    if (!_present) return;
    ValueDecoder decoder;
    const wire::Error::Reader error = results.getError();
    _domain = decoder.text(error.getDomain());
    _description = decoder.text(error.getDescription());
    _view = {_domain.c_str(), error.getCode(), _description.c_str()};
  }
  ErrorView(const ErrorView&) = delete;
  ErrorView& operator=(const ErrorView&) = delete;
  const corvid_error_t* get() const { return _present ? &_view : nullptr; }

 private:
  const bool _present;
  std::string _domain;
  std::string _description;
  corvid_error_t _view{};
};

template <class Results>
void answerStates(const StatesHandler& handler, const Results& results) {
  if (!handler.wantsReply() || !results.getAnswered()) return endUnanswered(handler);
  std::optional<Array> states;
  if (results.hasStates()) states = ValueDecoder().array(results.getStates());
  handler.callback(handler.context, CORVID_OK, states ? outside(&std::as_const(*states)) : nullptr);
  handler.end(CORVID_OUTCOME_ANSWERED);
}

void answerSuccess(const SuccessHandler& handler, bool answered, bool success,
                   const corvid_error_t* failure) {
  if (!handler.wantsReply() || !answered) return endUnanswered(handler);
  handler.callback(handler.context, CORVID_OK, success, failure);
  handler.end(CORVID_OUTCOME_ANSWERED);
}

// What the daemon gets of a file: its descriptor, and this to remove it.
class FileGrant final : public wire::FileGrant::Server {
 public:
  explicit FileGrant(UploadedFile file) : _file(std::move(file)) {}

  kj::Maybe<int> getFd() override { return _file.descriptor(); }
  kj::Promise<void> remove(RemoveContext) override {
    _file.remove();
    return kj::READY_NOW;
  }

 private:
  const UploadedFile _file;
};

// A call that travels alone. `request(daemon, replyWanted)` makes the request, `answer(handler,
// results)` hands its results over and ends the call; it decodes before it calls anything.
template <class Callback, class Request, class Answer>
class SingleCall : public RemoteCall {
 public:
  SingleCall(wire::Extent extent, Completion<Callback> handler, Request request, Answer answer)
      : RemoteCall(extent),
        _handler(handler),
        _request(std::move(request)),
        _answer(std::move(answer)) {}

  kj::Promise<void> perform(Daemon& daemon) override {
    return _request(daemon, _handler.wantsReply()).send().then([this](auto&& results) {
      _answer(_handler, results);
    });
  }
  void fail(int error) override { failCompletion(_handler, error); }

 private:
  const Completion<Callback> _handler;
  Request _request;
  Answer _answer;
};

template <class Callback, class Request, class Answer>
std::unique_ptr<RemoteCall> single(wire::Extent extent, Completion<Callback> handler,
                                   Request request, Answer answer) {
  return std::make_unique<SingleCall<Callback, Request, Answer>>(
      extent, handler, std::move(request), std::move(answer));
}

// A call that a later connection is told again.
template <class Base, class Note>
class Remembered final : public Base {
 public:
  template <class... Arguments>
  explicit Remembered(Note note, Arguments&&... arguments)
      : Base(std::forward<Arguments>(arguments)...), _note(std::move(note)) {}
  void remember(Replay& replay) const override { _note(replay); }

 private:
  Note _note;
};

template <class Callback, class Request, class Answer, class Note>
std::unique_ptr<RemoteCall> remembered(Note note, wire::Extent extent, Completion<Callback> handler,
                                       Request request, Answer answer) {
  using Base = SingleCall<Callback, Request, Answer>;
  return std::make_unique<Remembered<Base, Note>>(std::move(note), extent, handler,
                                                  std::move(request), std::move(answer));
}

// As the daemon takes it: who requires user info keeps what there is when given none.
void replaceUserInfo(Replay& replay, const std::optional<Dictionary>& userInfo) {
  if (!replay.sessionInfo) return;
  SessionInfo info = *replay.sessionInfo;
  if (!userInfo && booleanAt(info.sessionInfo, kCorvidSessionInfoRequireUserInfo)) return;
  info.userInfo = userInfo;
  replay.sessionInfo = std::make_shared<const SessionInfo>(std::move(info));
}

}  // namespace

Event::Event(std::uint16_t category, std::uint16_t type, std::optional<Dictionary> payload,
             wire::Extent extent, TextHandler handler)
    : Call(extent),
      _isDictionary(false),
      _category(category),
      _type(type),
      _content(std::move(payload)),
      _handler(handler) {}

Event::Event(Dictionary message, wire::Extent extent, TextHandler handler)
    : Call(extent),
      _isDictionary(true),
      _category(0),
      _type(0),
      _content(std::move(message)),
      _handler(handler) {}

void Event::encode(wire::Message::Builder message) const {
  message.setReplyWanted(_handler.wantsReply());
  if (_isDictionary) {
    encodeOptional(_content, [&](capnp::uint size) { return message.initDictionary(size); });
    return;
  }
  auto event = message.initEvent();
  event.setCategory(_category);
  event.setType(_type);
  encodeOptional(_content, [&](capnp::uint size) { return event.initPayload(size); });
}

void Event::answer(wire::TextResult::Reader result) { answerText(_handler, result); }
void Event::fail(int error) { failCompletion(_handler, error); }

bool EventBatch::add(std::unique_ptr<Call>& event) {
  const wire::Extent& extent = event->extent();
  if (!_events.empty() && (_events.size() == mostEvents || _words + extent.words > mostWords ||
                           _values + extent.values > limits::valuesPerMessage))
    return false;
  _words += extent.words;
  _values += extent.values;
  _events.emplace_back(static_cast<Event*>(event.release()));
  return true;
}

kj::Promise<void> EventBatch::perform(Daemon& daemon) {
  constexpr std::size_t wordsPerMessage = 4;
  auto request =
      daemon.sendMessagesRequest(sizeHint({.words = _words + _events.size() * wordsPerMessage}));
  auto messages = request.initMessages(count(_events.size()));
  for (std::size_t i = 0; i < _events.size(); ++i) _events[i]->encode(messages[count(i)]);
  return request.send().then([this](auto&& response) {
    const auto results = response.getResults();
    for (std::size_t i = 0; i < _events.size(); ++i) {
      if (i >= results.size()) {
        _events[i]->fail(CORVID_ERROR_BAD_REPLY);
        continue;
      }
      try {
        _events[i]->answer(results[count(i)]);
      } catch (const std::exception&) {
        _events[i]->fail(CORVID_ERROR_BAD_REPLY);
      }
    }
  });
}

void EventBatch::fail(int error) {
  for (const auto& event : _events) event->fail(error);
}

std::unique_ptr<RemoteCall> setSessionInfo(std::shared_ptr<const SessionInfo> info,
                                           wire::Extent extent, DoneHandler handler) {
  return remembered(
      [info](Replay& replay) { replay.sessionInfo = info; }, extent, handler,
      [info, hint = sizeHint(extent)](RemoteCall::Daemon& daemon, bool) {
        auto request = daemon.setSessionInfoRequest(hint);
        wire::encode(info->sessionInfo, request.initSessionInfo(count(info->sessionInfo.size())));
        encodeOptional(info->userInfo,
                       [&](capnp::uint size) { return request.initUserInfo(size); });
        wire::encode(info->frameworksToCheck,
                     request.initFrameworksToCheck(count(info->frameworksToCheck.size())));
        request.setHasAggregationBlock(info->hasAggregationBlock);
        return request;
      },
      [](const DoneHandler& done, const auto&) { endUnanswered(done); });
}

std::unique_ptr<RemoteCall> startConfig(StatesHandler handler) {
  return remembered(
      [](Replay& replay) { replay.startConfig = true; }, wire::Extent(), handler,
      [](RemoteCall::Daemon& daemon, bool replyWanted) {
        auto request = daemon.startConfigRequest();
        request.setReplyWanted(replyWanted);
        return request;
      },
      [](const StatesHandler& states, const auto& results) { answerStates(states, results); });
}

std::unique_ptr<RemoteCall> fetchStates(std::optional<Dictionary> userInfo, wire::Extent extent,
                                        StatesHandler handler) {
  const auto info = std::make_shared<const std::optional<Dictionary>>(std::move(userInfo));
  return remembered(
      [info](Replay& replay) { replaceUserInfo(replay, *info); }, extent, handler,
      [info, hint = sizeHint(extent)](RemoteCall::Daemon& daemon, bool replyWanted) {
        auto request = daemon.fetchStatesRequest(hint);
        request.setReplyWanted(replyWanted);
        encodeOptional(*info, [&](capnp::uint size) { return request.initUserInfo(size); });
        return request;
      },
      [](const StatesHandler& states, const auto& results) { answerStates(states, results); });
}

std::unique_ptr<RemoteCall> fetchDisplayURL(TextHandler handler) {
  return single(
      wire::Extent(), handler,
      [](RemoteCall::Daemon& daemon, bool replyWanted) {
        auto request = daemon.fetchDisplayURLRequest();
        request.setReplyWanted(replyWanted);
        return request;
      },
      [](const TextHandler& text, const auto& results) { answerText(text, results.getUrl()); });
}

std::unique_ptr<RemoteCall> flush(FlushHandler handler) {
  return single(
      wire::Extent(), handler,
      [](RemoteCall::Daemon& daemon, bool replyWanted) {
        auto request = daemon.flushRequest();
        request.setReplyWanted(replyWanted);
        return request;
      },
      [](const FlushHandler& flushed, const auto& results) {
        const wire::TextResult::Reader result = results.getResult();
        if (!flushed.wantsReply() || result.isUnanswered()) return endUnanswered(flushed);
        std::optional<std::string> text;
        if (result.isText()) text = ValueDecoder().text(result.getText());
        const ErrorView failure(results);
        flushed.callback(flushed.context, CORVID_OK, text ? text->c_str() : nullptr,
                         text ? text->size() : 0, failure.get());
        flushed.end(CORVID_OUTCOME_ANSWERED);
      });
}

std::unique_ptr<RemoteCall> finish(TextHandler handler) {
  return single(
      wire::Extent(), handler,
      [](RemoteCall::Daemon& daemon, bool replyWanted) {
        auto request = daemon.finishRequest();
        request.setReplyWanted(replyWanted);
        return request;
      },
      [](const TextHandler& text, const auto& results) { answerText(text, results.getResult()); });
}

std::unique_ptr<RemoteCall> uploadFile(std::string fileURL, std::optional<UploadedFile> file,
                                       wire::Extent extent, SuccessHandler handler) {
  return single(
      extent, handler,
      [fileURL = std::move(fileURL), file = std::move(file), hint = sizeHint(extent)](
          RemoteCall::Daemon& daemon, bool replyWanted) mutable {
        auto request = daemon.uploadFileRequest(hint);
        request.setReplyWanted(replyWanted);
        request.setFileURL({fileURL.c_str(), fileURL.size()});
        if (file) request.setFile(kj::heap<FileGrant>(*std::exchange(file, std::nullopt)));
        return request;
      },
      [](const SuccessHandler& success, const auto& results) {
        answerSuccess(success, results.getAnswered(), results.getSuccess(), nullptr);
      });
}

std::unique_ptr<RemoteCall> uploadLogData(Array logData, wire::Extent extent,
                                          SuccessHandler handler) {
  return single(
      extent, handler,
      [logData = std::move(logData), hint = sizeHint(extent)](RemoteCall::Daemon& daemon,
                                                              bool replyWanted) {
        auto request = daemon.uploadLogDataRequest(hint);
        request.setReplyWanted(replyWanted);
        wire::encode(logData, request.initLogData(count(logData.size())));
        return request;
      },
      [](const SuccessHandler& success, const auto& results) {
        const ErrorView failure(results);
        answerSuccess(success, results.getAnswered(), results.getSuccess(), failure.get());
      });
}

std::unique_ptr<RemoteCall> sendSingleMessage(Dictionary sessionInfo,
                                              std::optional<Dictionary> userInfo,
                                              std::uint16_t category, std::uint16_t type,
                                              std::optional<Dictionary> payload,
                                              wire::Extent extent, TextHandler handler) {
  return single(
      extent, handler,
      [sessionInfo = std::move(sessionInfo), userInfo = std::move(userInfo), category, type,
       payload = std::move(payload),
       hint = sizeHint(extent)](RemoteCall::Daemon& daemon, bool replyWanted) {
        auto request = daemon.sendSingleMessageRequest(hint);
        request.setReplyWanted(replyWanted);
        wire::encode(sessionInfo, request.initSessionInfo(count(sessionInfo.size())));
        encodeOptional(userInfo, [&](capnp::uint size) { return request.initUserInfo(size); });
        request.setCategory(category);
        request.setType(type);
        encodeOptional(payload, [&](capnp::uint size) { return request.initPayload(size); });
        return request;
      },
      [](const TextHandler& text, const auto& results) { answerText(text, results.getResult()); });
}

}  // namespace corvid::library
