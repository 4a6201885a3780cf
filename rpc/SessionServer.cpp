#include "rpc/SessionServer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kj/debug.h>

#include <exception>
#include <optional>
#include <utility>

#include "base/Log.h"
#include "platform/Platform.h"
#include "platform/data/PassedFile.h"
#include "protocol/Limits.h"
#include "protocol/wire/ValueCodec.h"
#include "rpc/PendingCall.h"

namespace corvid {

namespace {

using wire::ValueDecoder;

capnp::uint count(std::size_t size) { return static_cast<capnp::uint>(size); }

capnp::Text::Reader textReader(const std::string& text) { return {text.c_str(), text.size()}; }

// Writes the texts of one answer as far as the answer has room for them.
class TextWriter {
 public:
  // `client` is borrowed and names the client in log lines.
  explicit TextWriter(const std::string& client) : _client(client) {}

  void write(wire::TextResult::Builder result, const std::optional<std::string>& text) {
    result.setNone();
    if (!text) return;
    if (text->size() > _room) {
      logWarning("SessionServer: A text of {} bytes for {} is too large and is left out",
                 text->size(), _client);
      return;
    }
    _room -= text->size();
    result.setText(textReader(*text));
  }

 private:
  const std::string& _client;
  std::size_t _room = limits::answerTextBytes;
};

// The builder keeps the error absent where there is none.
template <class Results>
void writeError(Results results, const std::optional<CorvidError>& error) {
  if (!error) return;
  wire::Error::Builder target = results.initError();
  target.setDomain(textReader(error->domain));
  target.setCode(error->code);
  target.setDescription(textReader(error->localizedDescription));
}

template <class Results>
void writeStates(Results results, const std::optional<Array>& states) {
  results.setAnswered(true);
  if (states) wire::encode(*states, results.initStates(count(states->size())));
}

template <class Parameters>
std::optional<Dictionary> userInfoOf(ValueDecoder& decoder, Parameters parameters) {
  if (!parameters.hasUserInfo()) return std::nullopt;
  return decoder.dictionary(parameters.getUserInfo());
}

template <class Parameters>
std::optional<Dictionary> payloadOf(ValueDecoder& decoder, Parameters parameters) {
  if (!parameters.hasPayload()) return std::nullopt;
  return decoder.dictionary(parameters.getPayload());
}

// What a session is to keep of the client's infos.
void checkInfos(const Dictionary& sessionInfo, const std::optional<Dictionary>& userInfo,
                const Array& frameworks = {}) {
  wire::Extent extent;
  if (!sessionInfo.empty()) extent.add(sessionInfo);
  if (userInfo) extent.add(*userInfo);
  if (!frameworks.empty()) extent.add(frameworks);
  if (extent.bytes() > limits::sessionInfoBytes)
    throw wire::BrokenRule(fmt::format("infos of {} bytes", extent.bytes()));
}

// The descriptor that came with the capability; null where none did.
std::shared_ptr<PassedFile> passedFile(wire::FileGrant::Client file) {
  KJ_IF_MAYBE (descriptor, capnp::ClientHook::from(kj::mv(file))->getFd()) {
    Descriptor own(fcntl(*descriptor, F_DUPFD_CLOEXEC, 0));
    if (own) return std::make_shared<PassedFile>(std::move(own));
  }
  return nullptr;
}

std::string bytesOf(capnp::Data::Reader data) {
  return {reinterpret_cast<const char*>(data.begin()), data.size()};
}

// Runs `finish`, which owns the call, once there is an outcome: at once where the session answered
// while it was called.
template <class Finish>
kj::Promise<void> whenSettled(PendingCall& call, Finish finish) {
  if (!call.isSettled()) return call.whenSettled().then(kj::mv(finish));
  finish();
  return kj::READY_NOW;
}

}  // namespace

SessionServer::SessionServer(std::shared_ptr<ClientSessionInterface> session,
                             std::shared_ptr<Outbox> outbox, PeerGuard& guard,
                             DeliverySender& sender, std::string client)
    : _session(std::move(session)),
      _outbox(std::move(outbox)),
      _guard(guard),
      _sender(sender),
      _client(std::move(client)) {}

template <class Context, class Decode>
void SessionServer::decoding(Context& context, Decode decode) {
  try {
    decode(context.getParams());
    context.releaseParams();
    return;
  } catch (const wire::BrokenRule& rule) {
    _guard.fail(rule.what());
  } catch (const kj::Exception& exception) {
    _guard.fail(fmt::format("a malformed message ({})", exception.getDescription().cStr()));
  }
  kj::throwFatalException(KJ_EXCEPTION(FAILED, "the call breaks a rule"));
}

template <class Context>
bool SessionServer::wantsReply(Context& context) {
  bool wanted = false;
  decoding(context, [&](auto parameters) { wanted = parameters.getReplyWanted(); });
  return wanted;
}

template <class Operation>
void SessionServer::run(const char* name, Operation operation) {
  try {
    operation();
  } catch (const std::exception& exception) {
    logError("SessionServer: Exception in {} for {}: {}", name, _client, exception.what());
  } catch (...) {
    logError("SessionServer: Unknown exception in {} for {}", name, _client);
  }
}

template <class... Results, class Operation, class Write>
kj::Promise<void> SessionServer::perform(const char* name, bool replyWanted, Operation operation,
                                         Write write) {
  const auto call = std::make_shared<SingleCall<Results...>>(_outbox);
  Reply<Results...> reply;
  if (replyWanted)
    reply = Reply<Results...>(std::make_unique<SlotSink<Results...>>(call, call->slot));
  run(name, [&] { operation(std::move(reply)); });
  _sender.flush();
  auto finish = [call, write = kj::mv(write)]() mutable {
    if (call->slot) std::apply(write, *call->slot);
  };
  return whenSettled(*call, kj::mv(finish));
}

kj::Promise<void> SessionServer::setSessionInfo(SetSessionInfoContext context) {
  Dictionary sessionInfo;
  std::optional<Dictionary> userInfo;
  Array frameworks;
  bool hasAggregationBlock = false;
  decoding(context, [&](auto parameters) {
    ValueDecoder decoder;
    sessionInfo = decoder.dictionary(parameters.getSessionInfo());
    userInfo = userInfoOf(decoder, parameters);
    frameworks = decoder.array(parameters.getFrameworksToCheck());
    hasAggregationBlock = parameters.getHasAggregationBlock();
    checkInfos(sessionInfo, userInfo, frameworks);
  });
  run("setSessionInfo", [&] {
    _session->setSessionInfo(std::move(sessionInfo), std::move(userInfo), std::move(frameworks),
                             hasAggregationBlock);
  });
  _sender.flush();
  return kj::READY_NOW;
}

kj::Promise<void> SessionServer::startConfig(StartConfigContext context) {
  return perform<std::optional<Array>>(
      "startConfig", wantsReply(context),
      [&](StatesReply reply) { _session->startConfigWithCompletionHandler(std::move(reply)); },
      [context](const std::optional<Array>& states) mutable {
        writeStates(context.getResults(), states);
      });
}

kj::Promise<void> SessionServer::fetchStates(FetchStatesContext context) {
  bool replyWanted = false;
  std::optional<Dictionary> userInfo;
  decoding(context, [&](auto parameters) {
    ValueDecoder decoder;
    replyWanted = parameters.getReplyWanted();
    userInfo = userInfoOf(decoder, parameters);
    checkInfos({}, userInfo);
  });
  return perform<std::optional<Array>>(
      "fetchStates", replyWanted,
      [&](StatesReply reply) {
        _session->fetchStatesWithUserInfo(std::move(userInfo), std::move(reply));
      },
      [context](const std::optional<Array>& states) mutable {
        writeStates(context.getResults(), states);
      });
}

kj::Promise<void> SessionServer::fetchDisplayURL(FetchDisplayURLContext context) {
  return perform<std::string>(
      "fetchDisplayURL", wantsReply(context),
      [&](Reply<std::string> reply) { _session->fetchDisplayURL(std::move(reply)); },
      [this, context](const std::string& url) mutable {
        TextWriter(_client).write(context.getResults().initUrl(), url);
      });
}

kj::Promise<void> SessionServer::sendMessages(SendMessagesContext context) {
  std::shared_ptr<MessagesCall> call;
  decoding(context, [&](auto parameters) {
    ValueDecoder decoder;
    const auto messages = parameters.getMessages();
    if (messages.size() > limits::messagesPerCall)
      throw wire::BrokenRule(fmt::format("{} events in a call", messages.size()));
    call = std::make_shared<MessagesCall>(_outbox, messages.size());
    std::size_t at = 0;
    for (const wire::Message::Reader message : messages) {
      MessagesCall::TextSlot& slot = call->slots[at++];
      const auto reply = [&] {
        if (!message.getReplyWanted()) return ResultReply();
        return ResultReply(std::make_unique<SlotSink<std::optional<std::string>>>(call, slot));
      };
      switch (message.which()) {
        case wire::Message::EVENT: {
          const auto event = message.getEvent();
          auto payload = payloadOf(decoder, event);
          run("sendMessage", [&] {
            _session->sendMessageWithCategory(event.getCategory(), event.getType(),
                                              std::move(payload), reply());
          });
          break;
        }
        case wire::Message::DICTIONARY: {
          auto dictionary = decoder.dictionary(message.getDictionary());
          run("sendMessageWithDictionary",
              [&] { _session->sendMessageWithDictionary(std::move(dictionary), reply()); });
          break;
        }
        default: throw wire::BrokenRule("an event of a kind that is not known");
      }
    }
  });
  _sender.flush();
  auto finish = [this, call, context]() mutable {
    auto results = context.getResults().initResults(count(call->slots.size()));
    TextWriter writer(_client);
    for (capnp::uint i = 0; i < results.size(); ++i)
      if (const auto& slot = call->slots[i]) writer.write(results[i], std::get<0>(*slot));
  };
  return whenSettled(*call, kj::mv(finish));
}

kj::Promise<void> SessionServer::flush(FlushContext context) {
  return perform<std::optional<std::string>, std::optional<CorvidError>>(
      "flush", wantsReply(context),
      [&](FlushReply completion) { _session->flushMessagesWithCompletion(std::move(completion)); },
      [this, context](const std::optional<std::string>& text,
                      const std::optional<CorvidError>& error) mutable {
        TextWriter(_client).write(context.getResults().initResult(), text);
        writeError(context.getResults(), error);
      });
}

kj::Promise<void> SessionServer::finish(FinishContext context) {
  return perform<std::optional<std::string>>(
      "finish", wantsReply(context),
      [&](ResultReply reply) { _session->finishSessionWithReply(std::move(reply)); },
      [this, context](const std::optional<std::string>& text) mutable {
        TextWriter(_client).write(context.getResults().initResult(), text);
      });
}

kj::Promise<void> SessionServer::uploadFile(UploadFileContext context) {
  bool replyWanted = false;
  std::string fileURL;
  std::string extensionToken;
  wire::FileGrant::Client grantedFile = nullptr;
  std::shared_ptr<PassedFile> file;
  decoding(context, [&](auto parameters) {
    ValueDecoder decoder;
    replyWanted = parameters.getReplyWanted();
    fileURL = decoder.text(parameters.getFileURL());
    if (fileURL.size() > limits::fileURLBytes)
      throw wire::BrokenRule(fmt::format("a file URL of {} bytes", fileURL.size()));
    extensionToken = bytesOf(parameters.getExtensionToken());
    if (!parameters.hasFile()) return;
    grantedFile = parameters.getFile();
    file = passedFile(grantedFile);
  });
  std::optional<ExtensionTokens::Grant> grant;
  if (file) extensionToken = grant.emplace(Platform::current().extensionTokens(), file).token();
  auto done = perform<bool>(
      "uploadFile", replyWanted,
      [&](SuccessReply completion) {
        _session->uploadFileAtPath(std::move(fileURL), std::move(extensionToken),
                                   std::move(completion));
      },
      [context](bool success) mutable {
        context.getResults().setAnswered(true);
        context.getResults().setSuccess(success);
      });
  if (!file || !file->isToBeRemoved()) return done;
  // Whether it could be removed or not, the client hears the outcome of its call after that.
  return grantedFile.removeRequest()
      .send()
      .ignoreResult()
      .then([] {}, [](kj::Exception&&) {})
      .then([done = kj::mv(done)]() mutable { return kj::mv(done); });
}

kj::Promise<void> SessionServer::uploadLogData(UploadLogDataContext context) {
  bool replyWanted = false;
  Array logData;
  decoding(context, [&](auto parameters) {
    ValueDecoder decoder;
    replyWanted = parameters.getReplyWanted();
    logData = decoder.array(parameters.getLogData());
  });
  return perform<bool, std::optional<CorvidError>>(
      "uploadLogData", replyWanted,
      [&](LogDataReply completion) {
        _session->uploadLogData(std::move(logData), std::move(completion));
      },
      [context](bool success, const std::optional<CorvidError>& error) mutable {
        context.getResults().setAnswered(true);
        context.getResults().setSuccess(success);
        writeError(context.getResults(), error);
      });
}

kj::Promise<void> SessionServer::sendSingleMessage(SendSingleMessageContext context) {
  bool replyWanted = false;
  Dictionary sessionInfo;
  std::optional<Dictionary> userInfo;
  std::uint16_t category = 0;
  std::uint16_t type = 0;
  std::optional<Dictionary> payload;
  decoding(context, [&](auto parameters) {
    ValueDecoder decoder;
    replyWanted = parameters.getReplyWanted();
    sessionInfo = decoder.dictionary(parameters.getSessionInfo());
    userInfo = userInfoOf(decoder, parameters);
    category = parameters.getCategory();
    type = parameters.getType();
    payload = payloadOf(decoder, parameters);
    checkInfos(sessionInfo, userInfo);
  });
  return perform<std::string>(
      "sendSingleMessage", replyWanted,
      [&](Reply<std::string> reply) {
        _session->sendMessageWithSessionInfo(std::move(sessionInfo), std::move(userInfo), category,
                                             type, std::move(payload), std::move(reply));
      },
      [this, context](const std::string& text) mutable {
        TextWriter(_client).write(context.getResults().initResult(), text);
      });
}

}  // namespace corvid
