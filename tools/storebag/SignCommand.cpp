#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <utility>
#include <vector>

#include "config/StorebagEnvelope.h"
#include "platform/data/Crypto.h"
#include "platform/data/LocalFileSystem.h"
#include "platform/data/PropertyList.h"
#include "tools/signing/Envelope.h"
#include "tools/signing/SigningKey.h"
#include "tools/storebag/Bag.h"
#include "tools/storebag/Commands.h"
#include "tools/storebag/Lint.h"
#include "tools/storebag/Source.h"

namespace corvid::storebag {

namespace fs = std::filesystem;
using signing::SigningKey;

namespace {

// Neither a private key nor what the author writes is lost to a slip of the hand.
void refuseToReplace(const SignOptions& options) {
  const std::string& out = options.output;
  std::error_code error;
  if (fs::equivalent(out, options.source, error) && !error)
    throw CommandError(out + " is the storebag that is to be signed; name another file with -o");
  const auto present = readRegularFile(out);
  if (present && keyFormOf(present.value()) == KeyForm::privateKey)
    throw CommandError(out + " is a private key; name another file with -o");
}

void warn(const std::string& what) { fmt::print(stderr, "corvid-storebag: warning: {}\n", what); }

void warnOfReaders(const std::string& keyFile) {
  struct stat status {};
  if (SigningKey::isURI(keyFile) || stat(keyFile.c_str(), &status) != 0) return;
  if ((status.st_mode & (S_IRGRP | S_IROTH)) != 0)
    warn(keyFile + " can be read by others than its owner; chmod 600 keeps them out");
}

void refuseWhatIsWrong(const Dictionary& storebag, const SignOptions& options) {
  const std::vector<LintFinding> findings = lint(storebag);
  const auto first = std::ranges::find(findings, LintFinding::Kind::wrong, &LintFinding::kind);
  if (first == findings.end()) return;
  const std::string what =
      fmt::format("{}: {} WRONG, first {}: {}", options.source,
                  count(findings, LintFinding::Kind::wrong), first->path, first->what);
  if (!options.force)
    throw CommandError(fmt::format(
        "{}; corvid-storebag lint lists what it found, --force signs all the same", what));
  warn(what);
}

// What no device would take is not published.
void tryAsDevice(const std::string& envelope, const std::vector<SigningKey>& keys) {
  for (const SigningKey& key : keys) {
    const auto publicKey = RSAPublicKey::fromDER(key.publicKeyDER());
    const OpenedEnvelope opened =
        openEnvelope(envelope, {&publicKey.value(), 1}, {.requiresSHA256 = true});
    if (!opened.storebag)
      throw CommandError(fmt::format("no device with the key {} would take the envelope: {}",
                                     key.id(), opened.lack));
  }
}

}  // namespace

int runSignCommand(const SignOptions& options) {
  refuseToReplace(options);
  const Content content = contentOfFile(options.source);
  const std::string bag = bagOf(content, options.source);
  refuseWhatIsWrong(content.storebag, options);
  std::vector<SigningKey> keys;
  for (const std::string& source : options.keys) {
    keys.push_back(SigningKey::open(source));
    warnOfReaders(source);
  }
  const std::string envelope = signing::envelope(keys, bag);
  tryAsDevice(envelope, keys);
  if (const auto failure = replaceRegularFile(options.output, envelope, 0666))
    throw CommandError(failure->message);
  return 0;
}

}  // namespace corvid::storebag
