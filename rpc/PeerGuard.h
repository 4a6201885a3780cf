// Stands between a client's message stream and the RPC system and keeps the client to its limits.
//
// It hands on one message at a time, after everything that the one before set going has run: a
// client's calls run one after the other, and what a client sent before it left still runs. Nothing
// is read while something waits to be written, or while too many calls are unanswered; so a client
// that does not read cannot make the daemon's memory grow. A large answer that it does not take in
// time ends the connection.
//
// A rule is broken where a message is malformed, beyond a limit, or makes no sense at its place.
// After the first breach the RPC system tells the client and ends the connection.
//
// Threads: the event loop's.
#pragma once

#include <capnp/rpc-twoparty.h>
#include <capnp/rpc.capnp.h>
#include <capnp/serialize-async.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>

#include "protocol/wire/SocketPort.h"
#include "rpc/BudgetAccount.h"

namespace corvid {

class PeerGuard final : public capnp::MessageStream {
 public:
  using capnp::MessageStream::writeMessage;
  using capnp::MessageStream::writeMessages;

  // The first three are borrowed. `broken` hears of the first breach, `written` whenever the socket
  // has taken a message.
  PeerGuard(capnp::MessageStream& stream, wire::SocketPort& port, BudgetAccount& account,
            std::function<void(const std::string& rule)> broken, std::function<void()> written)
      : _stream(stream),
        _port(port),
        _account(account),
        _broken(std::move(broken)),
        _written(std::move(written)) {}

  // The client broke a rule that only the reader of a call can see.
  void fail(std::string rule);
  // Whether the socket has taken all that the network over this stream was given to write.
  bool hasWrittenAll(capnp::TwoPartyVatNetwork& network) const;

  kj::Promise<kj::Maybe<capnp::MessageReaderAndFds>> tryReadMessage(
      kj::ArrayPtr<kj::AutoCloseFd> descriptorSpace, capnp::ReaderOptions options,
      kj::ArrayPtr<capnp::word> scratchSpace) override;
  kj::Promise<void> writeMessage(
      kj::ArrayPtr<const int> descriptors,
      kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments) override;
  kj::Promise<void> writeMessages(
      kj::ArrayPtr<kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>>> messages) override;
  kj::Maybe<int> getSendBufferSize() override { return _stream.getSendBufferSize(); }
  kj::Promise<void> end() override { return _stream.end(); }

 private:
  using Incoming = kj::Maybe<capnp::MessageReaderAndFds>;

  kj::Promise<Incoming> readWhenAllowed(kj::ArrayPtr<kj::AutoCloseFd> descriptorSpace);
  kj::Promise<Incoming> refuse(std::string rule);
  std::optional<std::string> breachOf(capnp::rpc::Message::Reader message);
  std::optional<std::string> begin(std::uint32_t question);
  kj::Promise<void> write(kj::ArrayPtr<const int> descriptors,
                          kj::ArrayPtr<const kj::ArrayPtr<const capnp::word>> segments);
  void inspectOutgoing(capnp::rpc::Message::Reader message);
  // Ends, with a breach, when a large answer has waited too long.
  kj::Promise<void> answerIsLate();
  void openGate();

  capnp::MessageStream& _stream;
  wire::SocketPort& _port;
  BudgetAccount& _account;
  const std::function<void(const std::string&)> _broken;
  const std::function<void()> _written;
  std::optional<std::string> _breach;
  std::size_t _unanswered = 0;          // calls begun less calls returned
  std::set<std::uint32_t> _unfinished;  // questions of calls that the client has not finished with
  std::set<std::uint32_t> _bootstraps;  // of those, the questions for the session
  std::size_t _toWrite = 0;             // messages given to write that the socket has not taken
  kj::Own<kj::PromiseFulfiller<void>> _gate;  // of a read that is held back
};

}  // namespace corvid
