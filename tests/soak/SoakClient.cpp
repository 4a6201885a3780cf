#include "tests/soak/SoakClient.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "base/Descriptor.h"
#include "base/UnixAddress.h"

namespace corvid::soak {

using client::Status;

SoakClient::SoakClient(std::string root, std::string name,
                       std::shared_ptr<const ClientJournal> journal, unsigned seed)
    : _root(std::move(root)), _name(std::move(name)), _journal(std::move(journal)), _random(seed) {}

void SoakClient::act() {
  if (!_session) return come();
  const unsigned draw = below(1000);
  if (draw < 780) return send();
  if (draw < 850)
    for (unsigned events = 2 + below(20); events > 0; --events) send();
  else if (draw < 930)
    flush();
  else if (draw < 965)
    ask();
  else if (draw < 995)
    leave();
  else
    misbehave();
}

void SoakClient::come() {
  _kind = &drawKind(_random());
  _sessionName = fmt::format("{}s{}", _name, ++_sessions);
  _flushes = 0;
  _journal->opened(_sessionName, _kind->name);
  Session::Options options;
  options.root = _root;
  options.deadline = std::chrono::seconds(5);
  _session.emplace(std::move(options));
  if (_kind->clientType == 0) return;
  const client::Dictionary user = userInfo();
  (void)_session->setSessionInfo(
      sessionInfo(), _kind->givesUserInfo ? client::DictionaryView(user) : Session::none());
  (void)_session->startConfig();
}

client::Dictionary SoakClient::sessionInfo() const {
  client::Dictionary info;
  (void)info.set(kCorvidSessionInfoClientType, _kind->clientType);
  (void)info.set(kCorvidSessionInfoClientVersion, 3);
  (void)info.set(kCorvidSessionInfoSessionID, 42);
  (void)info.set(kCorvidSessionInfoBatchEvent, _kind->batches);
  (void)info.set(kCorvidSessionInfoRequireUserInfo, _kind->requiresUserInfo);
  return info;
}

// Nobody else's, so that sessions do not belong together.
client::Dictionary SoakClient::userInfo() const {
  client::Dictionary info;
  (void)info.set(kCorvidUserInfoClientName, std::string_view(_sessionName));
  (void)info.set(kCorvidUserInfoServiceName, "Soak");
  return info;
}

void SoakClient::send() {
  const std::string mark = fmt::format("{}e{}", _name, ++_events);
  client::Dictionary payload;
  (void)payload.set("mark", std::string_view(mark));
  (void)payload.set("filler", std::string(below(8) == 0 ? below(4000) : below(100), 'x'));
  client::Dictionary message;
  (void)message.set(kCorvidMessageParametersCategory, static_cast<int>(1 + below(3)));
  (void)message.set(kCorvidMessageParametersType, static_cast<int>(2 + below(3)));
  (void)message.set(kCorvidMessageParametersFlag, below(50) == 0 ? 1 : 0);
  (void)message.set(kCorvidMessageParametersPayload, payload);
  _journal->sent(mark, _sessionName);
  (void)_session->sendMessage(message, [journal = _journal, mark](Status status, auto) {
    if (!status) return;
    const client::Answer answer = client::Answer::current();
    journal->answered(mark, answer.disposition == CORVID_DISPOSITION_DROPPED
                                ? answer.reason.value_or("unknown")
                                : std::string_view());
  });
}

void SoakClient::flush() {
  const std::size_t number = _flushes++;
  _journal->flushAsked(_sessionName, number);
  (void)_session->flush(
      [journal = _journal, session = _sessionName, number](Status status, auto, auto) {
        if (status) journal->flushAnswered(session, number);
      });
}

void SoakClient::ask() {
  if (below(2) == 0)
    (void)_session->fetchDisplayURL(nullptr);
  else
    (void)_session->finish();
}

void SoakClient::leave() {
  if (!_session) return;
  _session.reset();
  _journal->ended(_sessionName);
}

void SoakClient::misbehave() {
  const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (UnixAddress(_root + "/run/corvidd/com.halcyon.corvidd").connect(socket.get()) != 0) return;
  std::string nonsense(1 + below(3000), '\0');
  for (char& byte : nonsense) byte = static_cast<char>(_random());
  (void)::send(socket.get(), nonsense.data(), nonsense.size(), MSG_NOSIGNAL);
}

}  // namespace corvid::soak
