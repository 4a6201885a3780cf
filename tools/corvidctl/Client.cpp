#include "tools/corvidctl/Client.h"

#include <fmt/format.h>
#include <sys/un.h>

#include <chrono>
#include <string_view>

#include "platform/Paths.h"

namespace corvid::ctl {

namespace {

// Hands `value` to `take`, an append to an array or a set in a dictionary.
template <class Take>
void put(const Value& value, Take take) {
  const auto check = [](client::Status status) {
    if (!status) throw std::runtime_error(status.text());
  };
  switch (value.type()) {
    case Value::Type::null: return check(take(nullptr));
    case Value::Type::boolean: return check(take(*value.boolean()));
    case Value::Type::integer: return check(take(*value.integer()));
    case Value::Type::real: return check(take(*value.real()));
    case Value::Type::date: return check(take(client::Date{value.date()->secondsSince1970}));
    case Value::Type::string: return check(take(std::string_view(*value.string())));
    case Value::Type::data: return check(take(client::Data{*value.data()}));
    case Value::Type::array: return check(take(client::ArrayView(clientArray(*value.array()))));
    case Value::Type::dictionary:
      return check(take(client::DictionaryView(clientDictionary(*value.dictionary()))));
  }
}

Value valueFrom(client::ValueView value) {
  switch (value.type()) {
    case CORVID_TYPE_NULL: return {};
    case CORVID_TYPE_BOOLEAN: return *value.boolean();
    case CORVID_TYPE_INTEGER: return *value.integer();
    case CORVID_TYPE_REAL: return *value.real();
    case CORVID_TYPE_DATE: return Date{*value.date()};
    case CORVID_TYPE_STRING: return std::string(*value.string());
    case CORVID_TYPE_DATA: return Data{std::string(*value.data())};
    case CORVID_TYPE_ARRAY: return arrayFrom(value.array());
    case CORVID_TYPE_DICTIONARY: return *dictionaryFrom(value.dictionary());
  }
  return {};
}

// Why there is no connection to the daemon below `root`.
std::string reasonOf(client::Status status, const std::string& root) {
  const std::string socket = Paths(root).socket;
  if (status.code() != CORVID_ERROR_NOT_CONNECTED) return status.text();
  if (socket.size() >= sizeof(sockaddr_un::sun_path))
    return fmt::format("the path of the daemon's socket, {}, is longer than the system takes",
                       socket);
  return fmt::format("no daemon serves {} (corvidd does not run, or runs with another --root)",
                     socket);
}

}  // namespace

client::Dictionary clientDictionary(const Dictionary& dictionary) {
  client::Dictionary result;
  for (const auto& [key, value] : dictionary) {
    const char* const name = key.c_str();
    // The library would take what stands before it for the key.
    if (key.find('\0') != std::string::npos) throw std::runtime_error("a key has a zero byte");
    put(value, [&](auto item) { return result.set(name, item); });
  }
  return result;
}

client::Array clientArray(const Array& array) {
  client::Array result;
  for (const Value& value : array) put(value, [&](auto item) { return result.append(item); });
  return result;
}

std::optional<Dictionary> dictionaryFrom(client::DictionaryView dictionary) {
  if (!dictionary) return std::nullopt;
  Dictionary result;
  for (std::size_t i = 0; i < dictionary.size(); ++i) {
    const auto [key, value] = dictionary.entry(i);
    result.set(std::string(key), valueFrom(value));
  }
  return result;
}

Array arrayFrom(client::ArrayView array) {
  Array result;
  for (std::size_t i = 0; i < array.size(); ++i) result.push_back(valueFrom(array[i]));
  return result;
}

Client::Client(const std::string& root, client::Session::Options handlers)
    : _session([&] {
        handlers.root = root.empty() ? "/" : root;
        handlers.invalidated = [this, invalidated = std::move(handlers.invalidated)] {
          if (invalidated) invalidated();
          _invalidated.release();
        };
        return std::move(handlers);
      }()) {
  if (!_session.status()) throw CallError(_session.status().text());
  if (const client::Status status = _session.connect(); !status)
    throw CallError(reasonOf(status, root));
}

void Client::failWithConnection() {
  // The library tells calls first; a connection that breaks ends its session soon after.
  static_cast<void>(_invalidated.try_acquire_for(std::chrono::seconds(10)));
  throw CallError(
      "the daemon closed the connection (it ended, or this user is not entitled; its log says why)");
}

void Client::perform(Call& call, const std::function<client::Status(client::Session&)>& make) {
  const client::Status accepted = make(_session);
  if (accepted == CORVID_ERROR_NOT_CONNECTED) failWithConnection();  // there was one
  if (!accepted) throw CallError(accepted.text());
  call._done.acquire();
  if (call.outcome != CORVID_OUTCOME_FAILED) return;
  // A call without a callback is not told why it failed.
  if (call._status || call._status == CORVID_ERROR_CONNECTION_LOST) failWithConnection();
  throw CallError(call._status.text());
}

}  // namespace corvid::ctl
