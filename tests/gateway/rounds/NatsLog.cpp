#include "tests/gateway/rounds/NatsLog.h"

#include <fmt/format.h>

#include <stdexcept>

namespace corvid::fleet {

namespace {

void check(natsStatus status, const char* what) {
  if (status != NATS_OK)
    throw std::runtime_error(fmt::format("{}: {}", what, natsStatus_GetText(status)));
}

bool makeStream(jsCtx* context, const std::string& stream) {
  jsStreamConfig config;
  jsStreamConfig_Init(&config);
  const char* subjects[] = {stream.c_str()};
  config.Name = stream.c_str();
  config.Subjects = subjects;
  config.SubjectsLen = 1;
  config.Storage = js_FileStorage;
  config.Replicas = 3;
  jsErrCode error{};
  return js_AddStream(nullptr, context, &config, nullptr, &error) == NATS_OK ||
         error == JSStreamNameExistErr;
}

}  // namespace

NatsConnection::NatsConnection(const std::string& url) {
  natsOptions* options = nullptr;
  check(natsOptions_Create(&options), "options");
  std::string servers = url;
  for (std::size_t at = 0; (at = servers.find(',', at)) != servers.npos; ++at)
    servers.insert(at + 1, "nats://");
  natsOptions_SetURL(options, nullptr);
  std::vector<std::string> list;
  for (std::size_t at = 0; at < servers.size();) {
    const std::size_t end = std::min(servers.find(',', at), servers.size());
    list.push_back(servers.substr(at, end - at));
    at = end + 1;
  }
  std::vector<const char*> pointers;
  for (const std::string& server : list) pointers.push_back(server.c_str());
  natsOptions_SetServers(options, pointers.data(), static_cast<int>(pointers.size()));
  natsOptions_SetMaxReconnect(options, -1);
  natsOptions_SetReconnectWait(options, 100);
  natsOptions_SetPingInterval(options, 2000);
  natsOptions_SetMaxPingsOut(options, 2);
  natsOptions_SetTimeout(options, 3000);
  const natsStatus status = natsConnection_Connect(&_connection, options);
  natsOptions_Destroy(options);
  check(status, "connecting");
}

NatsConnection::~NatsConnection() { natsConnection_Destroy(_connection); }

NatsPublisher::NatsPublisher(const std::string& url, std::chrono::milliseconds patience)
    : _connection(url), _patience(patience) {
  jsOptions options;
  jsOptions_Init(&options);
  options.PublishAsync.AckHandler = onAnswer;
  options.PublishAsync.AckHandlerClosure = this;
  check(natsConnection_JetStream(&_stream, _connection.get(), &options), "JetStream");
  _worker = std::jthread([this](const std::stop_token& stop) { run(stop); });
}

NatsPublisher::~NatsPublisher() {
  _worker.request_stop();
  _worker.join();
  natsConnection_Close(_connection.get());
  jsCtx_Destroy(_stream);
  for (auto& [id, entry] : _entries) entry.completion(Published::unanswered);
}

void NatsPublisher::publish(LogMessage message, Completion completion) {
  const std::lock_guard lock(_mutex);
  const std::string id = message.id;
  const auto deadline = Clock::now() + _patience;
  _entries[id] = {std::move(message), std::move(completion), deadline};
  _byDeadline.emplace_back(deadline, id);
  _unsent.push_back(id);
  _changed.notify_all();
}

bool NatsPublisher::isReady() const {
  return natsConnection_Status(_connection.get()) == NATS_CONN_STATUS_CONNECTED;
}

void NatsPublisher::run(const std::stop_token& stop) {
  while (!stop.stop_requested()) {
    std::vector<std::string> ids;
    {
      std::unique_lock lock(_mutex);
      _changed.wait_for(lock, std::chrono::milliseconds(50), [&] { return !_unsent.empty(); });
      ids.swap(_unsent);
    }
    for (const std::string& id : ids) send(id);
    expire();
  }
}

void NatsPublisher::send(const std::string& id) {
  LogMessage message;
  {
    const std::lock_guard lock(_mutex);
    const auto entry = _entries.find(id);
    if (entry == _entries.end()) return;
    message = entry->second.message;
  }
  bool& isMade = _made[message.stream];
  isMade = isMade || makeStream(_stream, message.stream);
  natsMsg* sent = nullptr;
  natsMsg_Create(&sent, message.stream.c_str(), nullptr, message.body.data(),
                 static_cast<int>(message.body.size()));
  for (const auto& [name, value] : message.headers)
    natsMsgHeader_Set(sent, name.c_str(), value.c_str());
  jsPubOptions options;
  jsPubOptions_Init(&options);
  options.MsgId = id.c_str();
  options.MaxWait = 2000;
  if (!isMade || js_PublishMsgAsync(_stream, &sent, &options) != NATS_OK) {
    natsMsg_Destroy(sent);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const std::lock_guard lock(_mutex);
    _unsent.push_back(id);
  }
}

void NatsPublisher::onAnswer(jsCtx*, natsMsg* message, jsPubAck* stored, jsPubAckErr*, void* self) {
  auto& publisher = *static_cast<NatsPublisher*>(self);
  const char* id = nullptr;
  natsMsgHeader_Get(message, "Nats-Msg-Id", &id);
  const std::string named = id == nullptr ? "" : id;
  natsMsg_Destroy(message);
  if (stored != nullptr) return publisher.complete(named, Published::stored);
  const std::lock_guard lock(publisher._mutex);
  publisher._unsent.push_back(named);
}

void NatsPublisher::complete(const std::string& id, Published outcome) {
  Completion completion;
  {
    const std::lock_guard lock(_mutex);
    const auto entry = _entries.find(id);
    if (entry == _entries.end()) return;
    completion = std::move(entry->second.completion);
    _entries.erase(entry);
  }
  completion(outcome);
}

void NatsPublisher::expire() {
  std::vector<std::string> late;
  {
    const std::lock_guard lock(_mutex);
    while (!_byDeadline.empty() && _byDeadline.front().first <= Clock::now()) {
      late.push_back(_byDeadline.front().second);
      _byDeadline.pop_front();
    }
  }
  for (const std::string& id : late) complete(id, Published::unanswered);
}

NatsReader::NatsReader(const std::string& url, const std::string& stream, const std::string& name)
    : _connection(url) {
  check(natsConnection_JetStream(&_context, _connection.get(), nullptr), "JetStream");
  if (!makeStream(_context, stream)) throw std::runtime_error("the stream cannot be made");
  jsSubOptions options;
  jsSubOptions_Init(&options);
  options.Stream = stream.c_str();
  options.ManualAck = true;
  options.Config.AckPolicy = js_AckExplicit;
  options.Config.MaxAckPending = 2000;
  options.Config.AckWait = 5'000'000'000;
  jsErrCode error{};
  check(js_PullSubscribe(&_subscription, _context, stream.c_str(), name.c_str(), nullptr, &options,
                         &error),
        "reading a stream");
}

NatsReader::~NatsReader() {
  for (auto& [position, message] : _held) natsMsg_Destroy(message);
  natsSubscription_Destroy(_subscription);
  jsCtx_Destroy(_context);
}

std::vector<LoggedMessage> NatsReader::read(std::size_t most, std::chrono::milliseconds wait) {
  natsMsgList list{};
  jsErrCode error{};
  const natsStatus status =
      natsSubscription_Fetch(&list, _subscription, static_cast<int>(most), wait.count(), &error);
  if (status == NATS_TIMEOUT) return {};
  check(status, "reading");
  std::vector<LoggedMessage> messages;
  for (int at = 0; at < list.Count; ++at) {
    natsMsg* const message = std::exchange(list.Msgs[at], nullptr);
    LoggedMessage logged;
    logged.position = ++_position;
    logged.message.stream = natsMsg_GetSubject(message);
    logged.message.body.assign(natsMsg_GetData(message),
                               static_cast<std::size_t>(natsMsg_GetDataLength(message)));
    const char* id = nullptr;
    if (natsMsgHeader_Get(message, "Nats-Msg-Id", &id) == NATS_OK) logged.message.id = id;
    _held.emplace_back(_position, message);
    messages.push_back(std::move(logged));
  }
  natsMsgList_Destroy(&list);
  return messages;
}

void NatsReader::release(std::uint64_t position) {
  while (!_held.empty() && _held.front().first <= position) {
    natsMsg_Ack(_held.front().second, nullptr);
    natsMsg_Destroy(_held.front().second);
    _held.pop_front();
  }
}

void purgeNatsStream(const std::string& url, const std::string& stream) {
  const NatsConnection connection(url);
  jsCtx* context = nullptr;
  check(natsConnection_JetStream(&context, connection.get(), nullptr), "JetStream");
  js_PurgeStream(context, stream.c_str(), nullptr, nullptr);
  jsCtx_Destroy(context);
}

}  // namespace corvid::fleet
