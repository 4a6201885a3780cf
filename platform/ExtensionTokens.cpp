#include "platform/ExtensionTokens.h"

#include "base/Share.h"
#include "base/Text.h"
#include "platform/Random.h"

namespace corvid {

ExtensionTokens::Grant::Grant(ExtensionTokens& tokens, std::shared_ptr<GrantedFile> file)
    : _tokens(tokens), _token(tokens.add(std::move(file))) {}
ExtensionTokens::Grant::~Grant() { _tokens.revoke(_token); }

ExtensionTokens::Handle::Handle(ExtensionTokens& tokens, std::shared_ptr<GrantedFile> file)
    : _tokens(tokens), _file(std::move(file)) {}
ExtensionTokens::Handle::~Handle() { _tokens.release(_user, _claimed); }

bool ExtensionTokens::Handle::claim(std::size_t bytes) {
  if (!_tokens.replaceClaim(_user, _claimed, bytes)) return false;
  _claimed = bytes;
  return true;
}

std::string ExtensionTokens::add(std::shared_ptr<GrantedFile> file) {
  const std::string token = hexadecimal(_random->uuid());
  const MutexLock lock(_mutex);
  _granted.insert_or_assign(token, Granted{std::move(file), std::this_thread::get_id()});
  return token;
}

ExtensionTokens::Handle ExtensionTokens::consume(const std::string& token) {
  const MutexLock lock(_mutex);
  ++_usage.handles;
  ++_usage.consumed;
  const auto found = _granted.find(token);
  const bool isGranted =
      found != _granted.end() && found->second.thread == std::this_thread::get_id();
  return Handle(*this, isGranted ? found->second.file : nullptr);
}

void ExtensionTokens::revoke(const std::string& token) {
  const MutexLock lock(_mutex);
  _granted.erase(token);
}

void ExtensionTokens::release(User user, std::size_t claimed) {
  const MutexLock lock(_mutex);
  --_usage.handles;
  setClaim(user, claimed, 0);
}

bool ExtensionTokens::replaceClaim(User user, std::size_t before, std::size_t after) {
  const MutexLock lock(_mutex);
  const std::size_t own = _claimedBy[user] - before;
  const std::size_t all = _usage.claimed - before;
  if (after > before && !leavesRoomForOthers(own, all, after, _claimLimit)) return false;
  setClaim(user, before, after);
  return true;
}

void ExtensionTokens::setClaim(User user, std::size_t before, std::size_t after) {
  _usage.claimed = _usage.claimed - before + after;
  const auto own = _claimedBy.try_emplace(user).first;
  if ((own->second = own->second - before + after) == 0) _claimedBy.erase(own);
}

ExtensionTokens::Usage ExtensionTokens::usage() const {
  const MutexLock lock(_mutex);
  Usage usage = _usage;
  usage.grants = _granted.size();
  return usage;
}

}  // namespace corvid
