// The daemon's exported object on the wire: decodes calls, hands them to the session, writes what
// it answers.
//
// Threads: the event loop's.
#pragma once

#include <memory>
#include <string>

#include "platform/ExtensionTokens.h"
#include "protocol/ClientSessionInterface.h"
#include "protocol/corvid.capnp.h"
#include "protocol/wire/SocketPort.h"
#include "rpc/BudgetAccount.h"
#include "rpc/DeliverySender.h"
#include "rpc/Outbox.h"
#include "rpc/PeerGuard.h"
#include "rpc/StatesSender.h"

namespace corvid {

class SessionServer final : public wire::ClientSession::Server {
 public:
  // What belongs to the connection. Borrowed.
  struct Serving {
    PeerGuard& guard;
    DeliverySender& sender;
    StatesSender& states;
    BudgetAccount& account;
    wire::SocketPort& port;
    ExtensionTokens& tokens;
  };
  // `client` names the client in log lines.
  SessionServer(std::shared_ptr<ClientSessionInterface> session, std::shared_ptr<Outbox> outbox,
                const Serving& serving, std::string client);

 private:
  kj::Promise<void> setSessionInfo(SetSessionInfoContext context) override;
  kj::Promise<void> startConfig(StartConfigContext context) override;
  kj::Promise<void> fetchStates(FetchStatesContext context) override;
  kj::Promise<void> fetchDisplayURL(FetchDisplayURLContext context) override;
  kj::Promise<void> sendMessages(SendMessagesContext context) override;
  kj::Promise<void> flush(FlushContext context) override;
  kj::Promise<void> finish(FinishContext context) override;
  kj::Promise<void> uploadFile(UploadFileContext context) override;
  kj::Promise<void> uploadLogData(UploadLogDataContext context) override;
  kj::Promise<void> sendSingleMessage(SendSingleMessageContext context) override;

  // What the session is to keep of the client's infos. Throws BrokenRule past the limits.
  void keepInfos(const Dictionary& sessionInfo, const std::optional<Dictionary>& userInfo,
                 const Array& frameworks = {});
  // What `decode(parameters, decoder)` makes of the call's parameters, which are gone afterwards: a
  // call may wait long for its answer, and for the client to take note of it. What breaks a rule
  // ends the connection.
  template <class Context, class Decode>
  auto decoded(Context& context, Decode decode);
  // Runs what the session does for the call of this name. It throws nothing.
  template <class Operation>
  void run(const char* name, Operation operation);
  // What the operation that has just run brings about for the client besides its answer.
  void flush();
  // Runs an operation with the tuple that `decode` gives and with a reply, and writes its answer
  // with `write(results, ...)`.
  template <class Context, class... Arguments, class Decode, class Write>
  kj::Promise<void> perform(const char* name, Context context,
                            void (ClientSessionInterface::*operation)(Arguments...), Decode decode,
                            Write write);
  // The same, where the answer's parts have places of their own.
  template <class Context, class... Arguments, class Decode>
  kj::Promise<void> perform(const char* name, Context context,
                            void (ClientSessionInterface::*operation)(Arguments...), Decode decode);
  // The same, where the answer is a session's states.
  template <class Context, class... Arguments, class Decode>
  kj::Promise<void> performForStates(const char* name, Context context,
                                     void (ClientSessionInterface::*operation)(Arguments...),
                                     Decode decode);
  // The same, where the answer is that of a message.
  template <class Context, class... Arguments, class Decode>
  kj::Promise<void> performForMessage(const char* name, Context context,
                                      void (ClientSessionInterface::*operation)(Arguments...),
                                      Decode decode);

  const std::shared_ptr<ClientSessionInterface> _session;
  const std::shared_ptr<Outbox> _outbox;
  PeerGuard& _guard;
  DeliverySender& _sender;
  StatesSender& _states;
  BudgetAccount& _account;
  wire::SocketPort& _port;
  ExtensionTokens& _tokens;
  const std::string _client;
};

}  // namespace corvid
