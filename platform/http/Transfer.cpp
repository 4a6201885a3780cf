#include "platform/http/Transfer.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
#include <utility>

#include "base/Text.h"
#include "platform/FileSystem.h"
#include "platform/http/ServerTrust.h"

namespace corvid {

namespace {

constexpr auto curleTooLarge = static_cast<CURLcode>(100);  // CURLE_TOO_LARGE of libcurl 8.6

}  // namespace

Transfer::Transfer(KeptConnections& keptConnections)
    : _keptConnections(keptConnections), _handle(curl().easy_init()) {
  CURL* const handle = _handle.get();
  if (!handle) throw std::bad_alloc();
  setOption(handle, CURLOPT_PRIVATE, static_cast<void*>(this));
  setOption(handle, CURLOPT_ERRORBUFFER, _errorText.data());
  setOption(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  setOption(handle, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(mostBodyBytes));

  using Data = std::size_t (*)(char*, std::size_t, std::size_t, void*);
  const Data header = [](char* data, std::size_t, std::size_t size, void* self) {
    return static_cast<Transfer*>(self)->takeHeader({data, size});
  };
  const Data body = [](char* data, std::size_t, std::size_t size, void* self) {
    return static_cast<Transfer*>(self)->takeBody({data, size});
  };
  const curl_prereq_callback prerequest = [](void* self, char* serverAddress, char*, int serverPort,
                                             int localPort) {
    return static_cast<Transfer*>(self)->beforeSending(serverAddress, serverPort, localPort);
  };
  const Data give = [](char* room, std::size_t size, std::size_t count, void* self) {
    return static_cast<Transfer*>(self)->giveBody({room, size * count});
  };
  setOption(handle, CURLOPT_READFUNCTION, give);
  setOption(handle, CURLOPT_READDATA, static_cast<void*>(this));
  setOption(handle, CURLOPT_HEADERFUNCTION, header);
  setOption(handle, CURLOPT_HEADERDATA, static_cast<void*>(this));
  setOption(handle, CURLOPT_WRITEFUNCTION, body);
  setOption(handle, CURLOPT_WRITEDATA, static_cast<void*>(this));
  setOption(handle, CURLOPT_PREREQFUNCTION, prerequest);
  setOption(handle, CURLOPT_PREREQDATA, static_cast<void*>(this));
}

void Transfer::trust(const std::optional<std::string>& caFile) {
  if (_trusted && *_trusted == caFile) return;
  setServerTrust(_handle.get(), caFile);
  _trusted = caFile;
}

Transfer* Transfer::of(CURL* handle) {
  void* self = nullptr;
  curl().easy_getinfo(handle, CURLINFO_PRIVATE, &self);
  return static_cast<Transfer*>(self);
}

void Transfer::begin(Exchange exchange, Exchange::Time now) {
  _exchange = std::move(exchange);
  _response = {};
  _hasWholeHead = false;
  _headerBytes = _bodyBytes = 0;
  CURL* const handle = _handle.get();
  setOption(handle, CURLOPT_URL, _exchange.url.c_str());
  if (_exchange.isPost) {
    setOption(handle, CURLOPT_POST, 1L);
    const std::size_t rest = _exchange.rest ? _exchange.rest->size() : 0;
    setOption(handle, CURLOPT_POSTFIELDSIZE_LARGE,
              static_cast<curl_off_t>(_exchange.body.size() + rest));
    // Without them libcurl asks for the body piece by piece.
    setOption(handle, CURLOPT_POSTFIELDS, _exchange.rest ? nullptr : _exchange.body.data());
  } else {
    setOption(handle, CURLOPT_HTTPGET, 1L);
  }
  setHeaderList();
  startAgain(now);
}

void Transfer::startAgain(Exchange::Time now) {
  using std::chrono::milliseconds;
  _wasSent = false;
  _bodyBytesGiven = 0;
  _refusal = Refusal::none;
  _errorText[0] = '\0';
  // 0 would mean none.
  const auto rest = std::chrono::ceil<milliseconds>(_exchange.deadline - now);
  setOption(_handle.get(), CURLOPT_TIMEOUT_MS,
            static_cast<long>(std::max(rest, milliseconds(1)).count()));
}

void Transfer::setHeaderList() {
  _headerList.clear();
  std::string& lines = _exchange.headerLines;
  for (std::size_t start = 0; start < lines.size(); start += std::strlen(&lines[start]) + 1)
    _headerList.push_back({&lines[start], nullptr});
  for (std::size_t i = 1; i < _headerList.size(); ++i) _headerList[i - 1].next = &_headerList[i];
  setOption(_handle.get(), CURLOPT_HTTPHEADER, _headerList.data());
}

HTTPOutcome Transfer::end(CURLcode result) {
  // libcurl takes an answer that ends within its head for a whole one.
  if (result == CURLE_OK && !_hasWholeHead) result = CURLE_RECV_ERROR;
  if (result != CURLE_OK) return {std::nullopt, errorFor(result)};
  _keptConnections.add(_handle.get());
  long status = 0;
  curl().easy_getinfo(_handle.get(), CURLINFO_RESPONSE_CODE, &status);
  _response.status = static_cast<int>(status);
  return {std::move(_response), std::nullopt};
}

Exchange Transfer::release() {
  // Assigning an empty one would keep its memory until the next exchange.
  const HTTPResponse response = std::exchange(_response, {});
  return std::exchange(_exchange, {});
}

HTTPError Transfer::errorFor(CURLcode result) const {
  const auto error = [this](CURLcode code, std::string_view text) {
    return HTTPError{code, fmt::format("{}: {}", _exchange.host, text), failureOf(code)};
  };
  switch (_refusal) {
    case Refusal::sentOnce:
      return error(CURLE_GOT_NOTHING, "the server closed the connection without an answer");
    case Refusal::body: return error(CURLE_FILESIZE_EXCEEDED, "the answer is too large");
    case Refusal::headers:
      return error(CURLE_FILESIZE_EXCEEDED, "the head of the answer is too large");
    case Refusal::none:
    case Refusal::closedConnection: break;
  }
  // libcurl has limits of its own for lines and heads: up to 8.5 it calls that a lack of memory.
  if ((result == CURLE_OUT_OF_MEMORY || result == curleTooLarge) && _wasSent && !_hasWholeHead)
    return error(CURLE_FILESIZE_EXCEEDED, "the head of the answer is too large");
  if (result == CURLE_FILESIZE_EXCEEDED) return error(result, "the answer is too large");
  return error(result, _errorText[0] ? _errorText.data() : curl().easy_strerror(result));
}

int Transfer::beforeSending(const char* serverAddress, int serverPort, int localPort) {
  long newConnections = 0;
  curl().easy_getinfo(_handle.get(), CURLINFO_NUM_CONNECTS, &newConnections);
  if (_wasSent) {
    _refusal = Refusal::sentOnce;
  } else if (newConnections == 0 &&
             _keptConnections.isClosed(serverAddress, serverPort, localPort)) {
    _refusal = Refusal::closedConnection;
  } else {
    _wasSent = true;
    return CURL_PREREQFUNC_OK;
  }
  return CURL_PREREQFUNC_ABORT;
}

std::size_t Transfer::giveBody(std::span<char> room) {
  const std::string& body = _exchange.body;
  std::size_t given = 0;
  if (_bodyBytesGiven < body.size()) {
    given = body.copy(room.data(), room.size(), _bodyBytesGiven);
  } else {
    const auto read = _exchange.rest->read(_bodyBytesGiven - body.size(), room);
    if (!read) return CURL_READFUNC_ABORT;
    given = *read;
  }
  _bodyBytesGiven += given;
  return given;
}

std::size_t Transfer::takeHeader(std::string_view line) {
  _headerBytes += line.size();
  if (_headerBytes > mostHeaderBytes) {
    _refusal = Refusal::headers;
    return 0;
  }
  const auto colon = line.find(':');
  if (line.starts_with("HTTP/")) {
    _response.headers.clear();  // those before belong to an interim answer
    _hasWholeHead = false;
  } else if (line == "\r\n" || line == "\n") {
    _hasWholeHead = true;
  } else if (colon != line.npos) {
    _response.headers.emplace_back(trimmed(line.substr(0, colon)), trimmed(line.substr(colon + 1)));
  }
  return line.size();
}

std::size_t Transfer::takeBody(std::string_view bytes) {
  _bodyBytes += bytes.size();
  if (_bodyBytes > mostBodyBytes) {
    _refusal = Refusal::body;
    return 0;
  }
  if (_exchange.wantsBody) _response.body.append(bytes);
  return bytes.size();
}

}  // namespace corvid
