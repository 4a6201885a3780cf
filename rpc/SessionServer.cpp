#include "rpc/SessionServer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kj/debug.h>

#include <exception>
#include <optional>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "base/Complaint.h"
#include "base/Log.h"
#include "platform/data/PassedFile.h"
#include "protocol/Limits.h"
#include "protocol/wire/ValueCodec.h"
#include "rpc/AnswerWriter.h"
#include "rpc/PendingCall.h"

namespace corvid {

namespace {

using wire::ValueDecoder;

// The pending call of an operation whose last argument is its reply.
template <class Reply>
struct PendingCallOf;
template <class... Results>
struct PendingCallOf<Reply<Results...>> {
  using Type = PendingCall<Results...>;
};

// The descriptor that came with the capability; null where none did.
std::shared_ptr<PassedFile> passedFile(wire::FileGrant::Client file) {
  KJ_IF_MAYBE (descriptor, capnp::ClientHook::from(kj::mv(file))->getFd()) {
    Descriptor own(fcntl(*descriptor, F_DUPFD_CLOEXEC, 0));
    if (own) return std::make_shared<PassedFile>(std::move(own));
  }
  return nullptr;
}

}  // namespace

SessionServer::SessionServer(std::shared_ptr<ClientSessionInterface> session,
                             std::shared_ptr<Outbox> outbox, const Serving& serving,
                             std::string client)
    : _session(std::move(session)),
      _outbox(std::move(outbox)),
      _guard(serving.guard),
      _sender(serving.sender),
      _states(serving.states),
      _account(serving.account),
      _port(serving.port),
      _tokens(serving.tokens),
      _client(std::move(client)) {}

void SessionServer::keepInfos(const Dictionary& sessionInfo,
                              const std::optional<Dictionary>& userInfo, const Array& frameworks) {
  wire::Extent extent;
  if (!sessionInfo.empty()) extent.add(sessionInfo);
  if (userInfo) extent.add(*userInfo);
  if (!frameworks.empty()) extent.add(frameworks);
  if (extent.bytes() > limits::sessionInfoBytes)
    throw wire::BrokenRule(fmt::format("infos of {} bytes", extent.bytes()));
  if (!_account.keepInfos(extent.bytes()))
    throw wire::BrokenRule(
        fmt::format("infos of {} bytes beside all that its user has kept", extent.bytes()));
}

template <class Context, class Decode>
auto SessionServer::decoded(Context& context, Decode decode) {
  try {
    ValueDecoder decoder;
    auto values = decode(context.getParams(), decoder);
    context.releaseParams();
    return values;
  } catch (const wire::BrokenRule& rule) {
    _guard.fail(rule.what());
  } catch (const kj::Exception& exception) {
    _guard.fail(fmt::format("a malformed message ({})", exception.getDescription().cStr()));
  }
  kj::throwFatalException(KJ_EXCEPTION(FAILED, "the call breaks a rule"));
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

void SessionServer::flush() {
  _sender.flush();
  _states.flush();
}

template <class Context, class... Arguments, class Decode, class Write>
kj::Promise<void> SessionServer::perform(const char* name, Context context,
                                         void (ClientSessionInterface::*operation)(Arguments...),
                                         Decode decode, Write write) {
  using Last = std::tuple_element_t<sizeof...(Arguments) - 1, std::tuple<Arguments...>>;
  const auto call = std::make_shared<typename PendingCallOf<Last>::Type>(_outbox, 1);
  bool replyWanted = false;
  auto arguments = decoded(context, [&](auto parameters, ValueDecoder& decoder) {
    replyWanted = parameters.getReplyWanted();
    return decode(parameters, decoder);
  });
  run(name, [&] {
    const auto operate = [&](auto&... each) {
      (*_session.*operation)(std::move(each)..., call->reply(0, replyWanted));
    };
    std::apply(operate, arguments);
  });
  _sender.flush();
  // What an answer tells of the states need not be told besides.
  constexpr bool answersStates = std::is_same_v<Last, StatesReply>;
  if (!answersStates) _states.flush();
  return call->whenSettled([this, call, context, write]() mutable {
    const auto writeAll = [&](const auto&... each) { write(context.getResults(), each...); };
    if (const auto& outcome = call->outcomes().front()) std::apply(writeAll, *outcome);
    if (answersStates) _states.flush();
  });
}

template <class Context, class... Arguments, class Decode>
kj::Promise<void> SessionServer::perform(const char* name, Context context,
                                         void (ClientSessionInterface::*operation)(Arguments...),
                                         Decode decode) {
  return perform(name, context, operation, decode, [this](auto results, const auto&... each) {
    AnswerWriter writer(_account, _client);
    (writer.write(results, each), ...);
  });
}

template <class Context, class... Arguments, class Decode>
kj::Promise<void> SessionServer::performForStates(
    const char* name, Context context, void (ClientSessionInterface::*operation)(Arguments...),
    Decode decode) {
  const bool reportWanted = context.getParams().getReportWanted();
  const auto write = [this, reportWanted](auto results, const std::optional<Array>& states) {
    results.setAnswered(true);
    if (!reportWanted)
      return wire::encode(states, [&](auto size) { return results.initStates(size); });
    const StatesReport report = _session->statesReport();
    auto target = results.initReport();
    encode(report, target);
    wire::encode(states, [&](auto size) { return target.initStates(size); });
    _states.told(report);
  };
  return perform(name, context, operation, decode, write);
}

template <class Context, class... Arguments, class Decode>
kj::Promise<void> SessionServer::performForMessage(
    const char* name, Context context, void (ClientSessionInterface::*operation)(Arguments...),
    Decode decode) {
  const bool reasonWanted = context.getParams().getReasonWanted();
  if (reasonWanted) _session->wantReasons();
  return perform(
      name, context, operation, decode,
      [this, reasonWanted](auto results, const MessageAnswer& answer) {
        AnswerWriter(_account, _client).writeMessage(results.initResult(), answer, reasonWanted);
      });
}

// What a call brings is decoded in the order in which it stands, as in the braces of a tuple.
constexpr auto nothing = [](auto, ValueDecoder&) { return std::tuple<>(); };

kj::Promise<void> SessionServer::setSessionInfo(SetSessionInfoContext context) {
  bool changesWanted = false;
  auto arguments = decoded(context, [&](auto parameters, ValueDecoder& decoder) {
    std::tuple infos{decoder.dictionary(parameters.getSessionInfo()),
                     decoder.dictionary(parameters.hasUserInfo(), parameters.getUserInfo()),
                     decoder.array(parameters.getFrameworksToCheck())};
    std::apply([this](const auto&... each) { keepInfos(each...); }, infos);
    changesWanted = parameters.getChangesWanted();
    return std::tuple_cat(std::move(infos), std::tuple{parameters.getHasAggregationBlock()});
  });
  run("setSessionInfo", [&] {
    const auto set = [&](auto&... each) { _session->setSessionInfo(std::move(each)...); };
    std::apply(set, arguments);
  });
  _states.setWanted(changesWanted);
  flush();
  return kj::READY_NOW;
}

kj::Promise<void> SessionServer::startConfig(StartConfigContext context) {
  return performForStates("startConfig", context,
                          &ClientSessionInterface::startConfigWithCompletionHandler, nothing);
}

kj::Promise<void> SessionServer::fetchStates(FetchStatesContext context) {
  return performForStates("fetchStates", context, &ClientSessionInterface::fetchStatesWithUserInfo,
                          [this](auto parameters, ValueDecoder& decoder) {
                            auto userInfo = decoder.dictionary(parameters.hasUserInfo(),
                                                               parameters.getUserInfo());
                            keepInfos({}, userInfo);
                            return std::tuple{std::move(userInfo)};
                          });
}

kj::Promise<void> SessionServer::fetchDisplayURL(FetchDisplayURLContext context) {
  return perform("fetchDisplayURL", context, &ClientSessionInterface::fetchDisplayURL, nothing);
}

kj::Promise<void> SessionServer::sendMessages(SendMessagesContext context) {
  using Call = PendingCallOf<ResultReply>::Type;
  std::vector<bool> reasonsWanted;
  const auto call = decoded(context, [&](auto parameters, ValueDecoder& decoder) {
    const auto messages = parameters.getMessages();
    if (messages.size() > limits::messagesPerCall)
      throw wire::BrokenRule(fmt::format("{} events in a call", messages.size()));
    const auto pending = std::make_shared<Call>(_outbox, messages.size());
    reasonsWanted.resize(messages.size());
    for (std::size_t slot = 0; const wire::Message::Reader message : messages) {
      reasonsWanted[slot] = message.getReasonWanted();
      if (reasonsWanted[slot]) _session->wantReasons();
      const auto reply = [&, slot] { return pending->reply(slot, message.getReplyWanted()); };
      switch (message.which()) {
        case wire::Message::EVENT: {
          const auto event = message.getEvent();
          auto payload = decoder.dictionary(event.hasPayload(), event.getPayload());
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
      ++slot;
    }
    return pending;
  });
  flush();
  return call->whenSettled(
      [this, call, context, reasonsWanted = std::move(reasonsWanted)]() mutable {
        const auto& outcomes = call->outcomes();
        // Most answers are nothing but themselves; unasked, the library clears 8 KiB for them.
        constexpr capnp::uint wordsOfCall = 64, wordsOfAnswer = 2;
        const capnp::MessageSize size{wordsOfCall + wordsOfAnswer * outcomes.size(), 0};
        auto results = context.getResults(size).initResults(wire::count(outcomes.size()));
        AnswerWriter writer(_account, _client);
        for (capnp::uint i = 0; i < results.size(); ++i)
          if (outcomes[i])
            writer.writeMessage(results[i], std::get<0>(*outcomes[i]), reasonsWanted[i]);
      });
}

kj::Promise<void> SessionServer::flush(FlushContext context) {
  return perform("flush", context, &ClientSessionInterface::flushMessagesWithCompletion, nothing);
}

kj::Promise<void> SessionServer::finish(FinishContext context) {
  return performForMessage("finish", context, &ClientSessionInterface::finishSessionWithReply,
                           nothing);
}

kj::Promise<void> SessionServer::uploadFile(UploadFileContext context) {
  wire::FileGrant::Client grantedFile = nullptr;
  std::shared_ptr<PassedFile> file;
  std::optional<ExtensionTokens::Grant> grant;
  auto done =
      perform("uploadFile", context, &ClientSessionInterface::uploadFileAtPath,
              [&](auto parameters, ValueDecoder& decoder) {
                std::string fileURL = decoder.text(parameters.getFileURL());
                if (fileURL.size() > limits::fileURLBytes)
                  throw wire::BrokenRule(fmt::format("a file URL of {} bytes", fileURL.size()));
                const auto token = parameters.getExtensionToken().asChars();
                if (parameters.hasFile()) file = passedFile(grantedFile = parameters.getFile());
                if (!file)
                  return std::tuple{std::move(fileURL), std::string(token.begin(), token.end())};
                grant.emplace(_tokens, file);
                return std::tuple{std::move(fileURL), grant->token()};
              });
  if (!file || !file->isToBeRemoved()) return done;
  // The client's own descriptor stays open until it has answered.
  auto share = _account.takeFile();
  if (!share) {
    logComplaint("SessionServer: {} and its user's other clients remove no files; this one stays",
                 _client);
    return done;
  }
  grant.reset();
  file.reset();
  // Whether it could be removed or not, the client hears the outcome of its call after that.
  return grantedFile.removeRequest()
      .send()
      .ignoreResult()
      .exclusiveJoin(_port.after(limits::removalTime.count() * kj::SECONDS))
      .then([] {}, [](kj::Exception&&) {})
      .attach(*std::move(share))
      .then([done = kj::mv(done)]() mutable { return kj::mv(done); });
}

kj::Promise<void> SessionServer::uploadLogData(UploadLogDataContext context) {
  return perform("uploadLogData", context, &ClientSessionInterface::uploadLogData,
                 [](auto parameters, ValueDecoder& decoder) {
                   return std::tuple{decoder.array(parameters.getLogData())};
                 });
}

kj::Promise<void> SessionServer::sendSingleMessage(SendSingleMessageContext context) {
  return performForMessage(
      "sendSingleMessage", context, &ClientSessionInterface::sendMessageWithSessionInfo,
      [this](auto parameters, ValueDecoder& decoder) {
        std::tuple arguments{decoder.dictionary(parameters.getSessionInfo()),
                             decoder.dictionary(parameters.hasUserInfo(), parameters.getUserInfo()),
                             parameters.getCategory(), parameters.getType(),
                             decoder.dictionary(parameters.hasPayload(), parameters.getPayload())};
        keepInfos(std::get<0>(arguments), std::get<1>(arguments));
        return arguments;
      });
}

}  // namespace corvid
