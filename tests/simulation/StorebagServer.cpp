#include "tests/simulation/StorebagServer.h"

#include <fmt/format.h>

#include <array>
#include <memory>
#include <utility>

#include "tests/config/Signers.h"
#include "tests/simulation/Storebags.h"

namespace corvid::simulation {

const Publication& publication(std::size_t number) {
  static std::array<std::unique_ptr<const Publication>, publications> all;
  auto& found = all.at(number);
  if (!found) {
    Dictionary content = storebagOf(static_cast<unsigned>(number));
    std::string envelope = enveloped(trustedSigner(), content);
    std::string forged = enveloped(strangeSigner(), content);
    found = std::make_unique<const Publication>(
        Publication{std::move(content), std::move(envelope), std::move(forged)});
  }
  return *found;
}

void StorebagServer::publish(const std::string& name) {
  const Publication& storebag = publication(_dice.below(publications));
  std::optional<std::string> lastModified;
  if (!_dice.oneIn(4)) lastModified = fmt::format("publication {}", ++_publications);
  publish(name, storebag, std::move(lastModified));
}

void StorebagServer::publish(const std::string& name, const Publication& storebag,
                             std::optional<std::string> lastModified) {
  _published[name] = {&storebag, std::move(lastModified)};
}

void StorebagServer::becomeAnyhow() {
  using Kind = ServerMood::Kind;
  constexpr std::array<Kind, 16> kinds{
      Kind::well, Kind::well,   Kind::well,  Kind::well,      Kind::well,        Kind::well,
      Kind::well, Kind::well,   Kind::well,  Kind::well,      Kind::unreachable, Kind::unreachable,
      Kind::cut,  Kind::forged, Kind::empty, Kind::noSuchPage};
  constexpr std::array<int, 5> ages{0, 600, 3600, 7200, 86400};
  mood.kind = _dice.anyOf(kinds);
  mood.takes = std::chrono::milliseconds(_dice.oneIn(8) ? _dice.below(15'000) : _dice.below(300));
  mood.maxAge.reset();
  if (!_dice.oneIn(4)) mood.maxAge = _dice.anyOf(ages);
}

FetchAnswer StorebagServer::answer(const std::string& name,
                                   const std::optional<std::string>& ifModifiedSince) const {
  using Kind = ServerMood::Kind;
  using Body = FetchAnswer::Body;
  if (mood.kind == Kind::unreachable) return {};
  FetchAnswer answer{.isAnswer = true, .maxAge = mood.maxAge};
  const auto found = _published.find(name);
  if (mood.kind == Kind::noSuchPage || found == _published.end()) {
    answer.body = Body::noStorebag;
    return answer;
  }
  const Standing& standing = found->second;
  answer.lastModified = standing.lastModified;
  answer.storebag = standing.storebag;
  if (mood.kind == Kind::empty) return answer;
  if (ifModifiedSince && ifModifiedSince == standing.lastModified) return answer;
  answer.body = mood.kind == Kind::cut      ? Body::noStorebag
                : mood.kind == Kind::forged ? Body::forged
                                            : Body::whole;
  return answer;
}

HTTPOutcome StorebagServer::rendered(const FetchAnswer& answer) const {
  using Body = FetchAnswer::Body;
  if (!answer.isAnswer)
    return {std::nullopt, HTTPError{7, "no server today", HTTPFailure::connect}};
  HTTPResponse response{.status = 200};
  if (answer.maxAge)
    response.headers.emplace_back("Cache-Control",
                                  fmt::format("public, max-age={}", *answer.maxAge));
  if (answer.lastModified) response.headers.emplace_back("Last-Modified", *answer.lastModified);
  switch (answer.body) {
    case Body::nothing: break;
    case Body::whole: response.body = answer.storebag->envelope; break;
    case Body::forged: response.body = answer.storebag->forged; break;
    case Body::noStorebag:
      response.body = answer.storebag ? answer.storebag->envelope.substr(
                                            0, answer.storebag->envelope.size() / 2)
                                      : "<html>no such page</html>";
      break;
  }
  return {std::move(response), std::nullopt};
}

}  // namespace corvid::simulation
