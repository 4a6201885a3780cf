// One libcurl transfer, used for one exchange after another.
#pragma once

#include <array>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/http/CurlLibrary.h"
#include "platform/http/Exchange.h"
#include "platform/http/KeptConnections.h"

namespace corvid {

// Used on the client's thread only. What never changes is set once; begin() sets the rest.
class Transfer {
 public:
  // Of the answer: past them the transfer ends with an error.
  static constexpr std::size_t mostBodyBytes = 8 * 1024 * 1024;
  static constexpr std::size_t mostHeaderBytes = 64 * 1024;

  // `keptConnections` is borrowed; all transfers of one multi handle share it.
  explicit Transfer(KeptConnections& keptConnections);
  Transfer(const Transfer&) = delete;
  Transfer& operator=(const Transfer&) = delete;

  CURL* handle() const { return _handle.get(); }
  static Transfer* of(CURL* handle);

  // Before the first begin(), and whenever there is none under way.
  void trust(const std::optional<std::string>& caFile);
  // Prepares for `exchange`, which is kept until release().
  void begin(Exchange exchange, Exchange::Time now);
  void startAgain(Exchange::Time now);
  const Exchange& exchange() const { return _exchange; }
  // True when it was ended because the connection it got was closed by the server, before anything
  // was sent; startAgain() then lets it take another.
  bool metClosedConnection() const { return _refusal == Refusal::closedConnection; }
  // The outcome, once the transfer has ended with `result` and before it is taken from its multi
  // handle, which alone knows the connection.
  HTTPOutcome end(CURLcode result);
  // Gives up the exchange, and the memory of its answer.
  Exchange release();

 private:
  struct Cleanup {
    void operator()(CURL* handle) const { curl().easy_cleanup(handle); }
  };
  // Why a callback of ours ended the transfer.
  enum class Refusal { none, closedConnection, sentOnce, body, headers };

  void setHeaderList();
  HTTPError errorFor(CURLcode result) const;

  int beforeSending(const char* serverAddress, int serverPort, int localPort);
  // Of the request's body, from where the last call ended.
  std::size_t giveBody(std::span<char> room);
  std::size_t takeHeader(std::string_view line);
  std::size_t takeBody(std::string_view bytes);

  KeptConnections& _keptConnections;
  std::unique_ptr<CURL, Cleanup> _handle;
  std::optional<std::optional<std::string>> _trusted;  // nothing before the first
  Exchange _exchange;
  std::vector<curl_slist> _headerList;  // points into _exchange.headerLines
  std::size_t _bodyBytesGiven = 0;
  bool _wasSent = false;
  Refusal _refusal = Refusal::none;
  HTTPResponse _response;
  bool _hasWholeHead = false;
  std::size_t _headerBytes = 0;
  std::size_t _bodyBytes = 0;
  std::array<char, CURL_ERROR_SIZE> _errorText{};
};

}  // namespace corvid
