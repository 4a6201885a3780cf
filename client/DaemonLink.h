// A connection to the daemon over its socket: the part of Cap'n Proto's RPC protocol that it takes.
//
// The daemon's ClientSession is the answer to question 0, which stays open as long as the
// connection. The client's own object, a ClientSessionReply, is export 0; each file that travels is
// an export for as long as the daemon wants it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/Descriptor.h"
#include "client/Link.h"
#include "client/UploadedFile.h"
#include "client/wire/MessageBuilder.h"
#include "client/wire/MessageReader.h"

namespace corvid::library {

class DaemonLink final : public Link {
 public:
  DaemonLink(Session& session, Descriptor socket);

 private:
  // What waits to leave. A file's descriptor goes with the first byte.
  struct Outgoing {
    std::string bytes;
    std::shared_ptr<UploadedFile> file;
  };
  struct Export {
    std::shared_ptr<UploadedFile> file;
    std::uint32_t references = 0;
  };

  void send(std::uint32_t question, const Parcel& parcel) override;
  bool takesMore() const override;
  bool leaveNow() override;
  void turn(Session::Time until, bool hostIsBusy) override REQUIRES(_atWork);

  void write(wire::MessageBuilder& message, std::shared_ptr<UploadedFile> file = nullptr);
  void tellFinished();
  void queue(std::string_view bytes, std::shared_ptr<UploadedFile> file);
  bool sendFirst();
  void read();
  // Takes the whole messages at the beginning, and gives what is left.
  std::string_view takeMessages(std::string_view bytes);

  void received(wire::MessageReader::Struct message, std::size_t bytes);
  void receivedCall(wire::MessageReader::Struct call);
  void receivedReturn(wire::MessageReader::Struct answer, std::size_t bytes);
  void receivedBootstrap(std::uint32_t question);
  // Tells the daemon that an answer of so many bytes has come, with the next call if it is small:
  // alone that would wake the daemon for nothing.
  void finish(std::uint32_t question, std::size_t bytes);
  // Whether the call was known.
  bool perform(wire::MessageReader::Struct call);
  void release(std::uint32_t id, std::uint32_t references);

  static constexpr std::uint32_t bootstrapQuestion = 0;
  static constexpr std::uint32_t ownObject = 0;
  static constexpr std::size_t readBytes = std::size_t{64} << 10;
  // What the daemon keeps until it is told.
  static constexpr std::size_t mostUntoldAnswers = 4;
  static constexpr std::size_t mostUntoldBytes = 1024;

  const Descriptor _socket;
  std::deque<Outgoing> _output;
  std::size_t _outputBytes = 0;
  std::size_t _firstSent = 0;  // bytes of the first
  std::string _untold;         // acknowledgements
  std::size_t _untoldAnswers = 0;
  const std::unique_ptr<char[]> _space{new char[readBytes]};  // for what is read at once
  std::string _input;                                         // the beginning of a message
  std::map<std::uint32_t, Export> _exports;                   // files, by number
  std::map<std::uint32_t, std::uint32_t> _fileOfQuestion;     // exports of parameters
};

}  // namespace corvid::library
