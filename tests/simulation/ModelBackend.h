// One backend of a session: what it holds, posts and drops, and why. docs/posts.md, docs/fields.md,
// docs/reasons.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Value.h"
#include "tests/simulation/Facts.h"
#include "tests/simulation/ModelBooks.h"
#include "tests/simulation/ModelPolicy.h"

namespace corvid::simulation {

// What all backends of a set are made with.
struct Maker {
  std::uint32_t sessionID = 0;
  std::int32_t clientType = 0;
  std::uint16_t clientVersion = 0;
  bool requiresUserInfo = false;
  bool batches = false;
  double start = 0;
  double draw = 0;
  bool consents = false;
};

struct Message {
  std::optional<Dictionary> payload{};
  std::uint16_t category = 0;
  std::uint16_t type = 0;
  std::int32_t flag = 0;
};

// A client's call to flush, which all of its backends answer.
class Flush {
 public:
  // Called once, with the answers that may be given.
  using Told = std::function<void(std::vector<std::string>)>;
  Flush(std::size_t backends, Told told) : _pending(backends), _told(std::move(told)) {}

  // Those that answer at once, in an order that nobody promises.
  void answerAtOnce(std::string result, bool isError) {
    (isError ? _errors : _results).push_back(std::move(result));
    --_pending;
  }
  // All of those have: tells the client where it can be told.
  void settle();
  void answerLater(const std::string& result, bool isError);

  static std::string errorText(int code, const std::string& text);
  static std::string resultText(bool hasText);

 private:
  std::size_t _pending;
  std::vector<std::string> _errors;
  std::vector<std::string> _results;
  Told _told;
  bool _isOver = false;
};

// What a client's message is answered with: bodies of posts that the text tells of, the last one
// the message's own; nothing where there is no text.
using Told = std::vector<Dictionary>;

class ModelBackend : public std::enable_shared_from_this<ModelBackend> {
 public:
  // Null where none is made.
  static std::shared_ptr<ModelBackend> make(const std::string& name, const Value& profile,
                                            const Maker& maker,
                                            const std::optional<Dictionary>& userInfo,
                                            const Facts& facts, Books& books);

  void updateState(const Facts& facts);
  void setUserInfo(std::optional<Dictionary> userInfo) { _userInfo = std::move(userInfo); }
  void setCombinedID(const std::string& combinedID);
  Told send(const Message& message, const Facts& facts);
  // `flush` may be null.
  Told flush(const Facts& facts, const std::shared_ptr<Flush>& flush);
  // It is not used any more.
  void cleanup() { discard(); }

  const std::string& name() const { return _name; }
  State state() const { return _policy.state; }
  std::int32_t hierarchy() const { return _policy.hierarchy; }
  const std::optional<std::string>& displayURL() const { return _displayURL; }
  bool reports() const { return state() == State::sending || state() == State::held; }
  // A state that another has decided: the parent's, or none without it.
  void follow(const ModelBackend* parent);
  std::string description() const;

 private:
  enum class Kind { poster, adaptor, other };

  ModelBackend(std::string name, Kind kind, const Maker& maker, std::optional<Dictionary> userInfo,
               Books& books)
      : _name(std::move(name)),
        _kind(kind),
        _maker(maker),
        _books(books),
        _userInfo(std::move(userInfo)) {}

  Dictionary record(const Message& message, const Facts& facts) const;
  Told hold(Dictionary record, const Facts& facts);
  bool isLogged(const Facts& facts) const;
  Dictionary body(const std::vector<Dictionary>& records, const Facts& facts) const;
  void post(Dictionary body, std::size_t events, const Message* message, const Facts& facts,
            const std::shared_ptr<Flush>& flush, bool hasText);
  void discard();

  const std::string _name;
  const Kind _kind;
  const Maker _maker;
  Books& _books;
  PolicyMaker _policyMaker{};
  Policy _policy{};
  std::optional<std::string> _displayURL;
  std::optional<Dictionary> _userInfo;
  std::optional<std::string> _combinedID;
  std::uint16_t _events = 0;
  std::optional<std::vector<Dictionary>> _batch;
  std::map<std::uint16_t, std::int32_t> _counts;
  bool _hasAdaptor = false;
};

}  // namespace corvid::simulation
