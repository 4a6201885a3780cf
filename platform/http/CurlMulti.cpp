#include "platform/http/CurlMulti.h"

#include <new>
#include <utility>

namespace corvid {

void CurlMulti::open() {
  _multi.reset(curl().multi_init());
  if (!_multi) throw std::bad_alloc();
  const auto connections = static_cast<long>(_mostConnections);
  curl().multi_setopt(_multi.get(), CURLMOPT_PIPELINING, static_cast<long>(CURLPIPE_NOTHING));
  curl().multi_setopt(_multi.get(), CURLMOPT_MAXCONNECTS, connections);
  curl().multi_setopt(_multi.get(), CURLMOPT_MAX_TOTAL_CONNECTIONS, connections);
}

void CurlMulti::close() {
  _unused.clear();
  _transfers.clear();
  _multi.reset();
  _keptConnections.clear();
}

// libcurl knows certificates that it has read, and connections that were made by them, by the
// file's name: under another spelling it reads the file and makes connections anew.
void CurlMulti::trust(std::optional<std::string> caFile) {
  constexpr std::size_t spellings = 64;  // far more than there are in the life of a connection
  _caFile = std::move(caFile);
  if (_caFile) _caFile->insert(0, ++_timesTrusted % spellings, '/');
}

void CurlMulti::begin(Exchange exchange, Exchange::Time now) {
  if (!_multi) open();
  if (_unused.empty()) {
    _transfers.push_back(std::make_unique<Transfer>(_keptConnections));
    _unused.push_back(_transfers.back().get());
  }
  Transfer* const transfer = _unused.back();
  _unused.pop_back();
  transfer->trust(_caFile);
  transfer->begin(std::move(exchange), now);
  curl().multi_add_handle(_multi.get(), transfer->handle());
}

std::vector<CurlMulti::Ended> CurlMulti::perform(Exchange::Time now) {
  std::vector<Ended> ended;
  for (bool hasMore = true; std::exchange(hasMore, false);) {
    int left = 0;
    curl().multi_perform(_multi.get(), &left);
    while (const CURLMsg* const message = curl().multi_info_read(_multi.get(), &left)) {
      if (message->msg != CURLMSG_DONE) continue;
      const CURLcode result = message->data.result;
      Transfer& transfer = *Transfer::of(message->easy_handle);
      if (transfer.metClosedConnection()) {
        curl().multi_remove_handle(_multi.get(), transfer.handle());
        transfer.startAgain(now);
        curl().multi_add_handle(_multi.get(), transfer.handle());
        hasMore = true;
      } else {
        HTTPOutcome outcome = transfer.end(result);
        ended.push_back({release(transfer), std::move(outcome)});
      }
    }
  }
  return ended;
}

void CurlMulti::sleep(std::chrono::milliseconds longest) {
  curl().multi_poll(_multi.get(), nullptr, 0, static_cast<int>(longest.count()), nullptr);
}

std::vector<Exchange> CurlMulti::abandon() {
  std::vector<Exchange> abandoned;
  for (const auto& transfer : _transfers)
    if (transfer->exchange().completion) abandoned.push_back(release(*transfer));
  return abandoned;
}

Exchange CurlMulti::release(Transfer& transfer) {
  curl().multi_remove_handle(_multi.get(), transfer.handle());
  _unused.push_back(&transfer);
  return transfer.release();
}

}  // namespace corvid
