#include <fmt/format.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "base/Reading.h"
#include "config/PublicKeys.h"
#include "config/StorebagEnvelope.h"
#include "platform/data/Crypto.h"
#include "platform/data/JSON.h"
#include "platform/data/LocalFileSystem.h"
#include "protocol/Reason.h"
#include "tools/storebag/Commands.h"
#include "tools/storebag/Source.h"

namespace corvid::storebag {

namespace {

RSAPublicKey publicKeyOf(const std::string& file) {
  const Result<std::string> der = readRegularFile(file, publicKeyLimit);
  if (!der) throw CommandError(der.failure().message);
  Result<RSAPublicKey> key = RSAPublicKey::fromDER(der.value());
  if (key) return std::move(key).value();
  const KeyForm form = keyFormOf(der.value());
  throw CommandError(fmt::format(
      "{}: {}", file,
      form == KeyForm::publicPEM
          ? "PEM, where devices read DER; openssl pkey -pubin -outform DER converts it"
      : form == KeyForm::privateKey ? "a private key, which no device may have; keygen writes the "
                                      "public one beside it as publicKey.der"
                                    : key.failure().message));
}

// What a device would make of an envelope.
struct Verdict {
  std::optional<std::string> keyID{};
  std::optional<std::string> version{};
  std::optional<Reason> reason{};  // why a device would not use it
  std::string detail{};
};

Verdict verdictOf(const VerifyOptions& options) {
  std::vector<RSAPublicKey> keys;
  for (const std::string& file : options.publicKeys) keys.push_back(publicKeyOf(file));
  Source source;
  try {
    source = read(options.source);
  } catch (const UnreachableError& error) {
    return {.reason = Reason::storebagUnreachable, .detail = error.detail};
  }
  const OpenedEnvelope opened =
      openEnvelope(source.bytes, keys, {.requiresSHA256 = options.requiresSHA256});
  Verdict verdict;
  if (opened.key) verdict.keyID = fmt::format("{:016x}", *opened.key);
  if (!opened.storebag)
    return {.reason = opened.reason,
            .detail = source.status == 0
                          ? std::string(opened.lack)
                          : fmt::format("status {}: {}", source.status, opened.lack)};
  verdict.version = textAt(*opened.storebag, "version");
  if (!verdict.version) {
    verdict.reason = Reason::storebagMalformed;
    verdict.detail = "it lacks \"version\"";
  }
  return verdict;
}

Value orNothing(const std::optional<std::string>& text) { return text ? Value(*text) : Value(); }

}  // namespace

int runVerifyCommand(const VerifyOptions& options) {
  const Verdict verdict = verdictOf(options);
  const bool isGood = !verdict.reason;
  if (options.asJSON)
    fmt::print("{}\n", *writeJSON({{"verified", isGood},
                                   {"keyID", orNothing(verdict.keyID)},
                                   {"version", orNothing(verdict.version)},
                                   {"reason", isGood ? Value() : Value(wordOf(*verdict.reason))},
                                   {"detail", isGood ? Value() : Value(verdict.detail)}}));
  else if (isGood)
    fmt::print("{}: verified by the key {}, version {}\n", options.source.name, *verdict.keyID,
               *verdict.version);
  else
    throw CommandError(
        fmt::format("{}: {}: {}", options.source.name, wordOf(*verdict.reason), verdict.detail));
  return isGood ? 0 : 1;
}

}  // namespace corvid::storebag
