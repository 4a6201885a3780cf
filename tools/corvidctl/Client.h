// A session of the client library whose calls are made one after the other, each waited for.
#pragma once

#include <corvid/corvid.hpp>
#include <cstdint>
#include <functional>
#include <optional>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <utility>

#include "base/Value.h"

namespace corvid::ctl {

// Values for the library and from it. What the library refuses (a text that is not UTF-8, say) is a
// std::runtime_error with its reason.
client::Dictionary clientDictionary(const Dictionary& dictionary);
client::Array clientArray(const Array& array);
std::optional<Dictionary> dictionaryFrom(client::DictionaryView dictionary);
Array arrayFrom(client::ArrayView array);

// A call, or the connection before it, that failed; what() says why.
struct CallError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// One call: what it is given as its callbacks, and what the daemon made of it. Those run on the
// library's thread; the caller reads what they leave after the end.
class Call {
 public:
  // Without a reply the call is made without a callback for it.
  explicit Call(bool wantsReply = true) : _wantsReply(wantsReply) {}

  // The callback for the reply, of whichever kind the call takes.
  template <class... Values>
  operator std::function<void(client::Status, Values...)>() {
    if (!_wantsReply) return nullptr;
    return [this](client::Status status, Values... values) {
      _status = status;
      (keep(std::move(values)), ...);
    };
  }
  // The callback for the end.
  client::Session::Finished end() {
    return [this](corvid_outcome_t how) {
      outcome = how;
      _done.release();  // nobody on this thread touches the call after that
    };
  }

  corvid_outcome_t outcome = CORVID_OUTCOME_DONE;
  std::optional<std::string> text;
  std::optional<Array> states;
  bool success = false;
  std::optional<client::Error> failure;

 private:
  friend class Client;
  void keep(std::optional<std::string> value) { text = std::move(value); }
  void keep(std::optional<client::Array> value) {
    if (value) states = arrayFrom(*value);
  }
  void keep(bool value) { success = value; }
  void keep(std::optional<client::Error> value) { failure = std::move(value); }

  const bool _wantsReply;
  client::Status _status = CORVID_OK;
  std::binary_semaphore _done{0};
};

// Threads   One caller. The handlers run on the library's thread.
// Errors    CallError, from every operation. Where the connection was lost, `invalidated` has
//           returned before.
class Client {
 public:
  // Connects to the daemon below `root`; empty for the machine itself.
  explicit Client(const std::string& root, client::Session::Options handlers = {});

  // Makes one call and waits for its end. `make` calls the session with both callbacks of `call`.
  void perform(Call& call, const std::function<client::Status(client::Session&)>& make);

 private:
  [[noreturn]] void failWithConnection();

  std::counting_semaphore<> _invalidated{0};
  client::Session _session;
};

}  // namespace corvid::ctl
