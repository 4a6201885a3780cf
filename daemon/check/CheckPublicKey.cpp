// The keys that storebags are signed with: their public halves belong here, and nothing else.
#include <fmt/format.h>

#include <cerrno>
#include <filesystem>

#include "config/PublicKeys.h"
#include "daemon/check/Inspection.h"
#include "platform/data/Crypto.h"
#include "platform/data/LocalFileSystem.h"

namespace corvid {

namespace {

// Where whoever runs the check keeps private keys: nobody else reads there.
constexpr std::string_view privateFolder = "~/corvid-signing";

std::string installing(const std::string& path, std::string_view openssl) {
  return fmt::format("{} -pubout -outform DER | install -D -m 644 /dev/stdin {}", openssl,
                     shellWord(path));
}

// Nothing that stands there is overwritten.
std::string makingNewPair(const std::string& path) {
  const std::string key = fmt::format("{}/private.pem", privateFolder);
  return fmt::format(
      "(umask 077 && mkdir -p {0} && {{ test -e {1} || openssl genrsa -out {1} 3072; }}) && {2}",
      privateFolder, key, installing(path, "openssl rsa -in " + key));
}

// What was readable by everybody may have been read: the command saves it, and no more.
std::string movingPrivateKey(const std::string& path) {
  const std::string key = fmt::format("{}/found-in-{}.key", privateFolder,
                                      shellWord(std::filesystem::path(path).filename().string()));
  return fmt::format("(umask 077 && mkdir -p {0} && cp {1} {2}) && {3}", privateFolder,
                     shellWord(path), key, installing(path, "openssl pkey -in " + key));
}

// What a file holds that should be a key.
void checkKey(const std::string& path, const std::string& content, Inspection& it) {
  const auto key = RSAPublicKey::fromDER(content);
  if (key) return it.found.right(path, "an RSA public key");
  if (key.failure().code == EKEYREJECTED)
    return it.found.wrong(
        path, key.failure().message + "; sign the storebags with a new pair's private key",
        it.asRoot(makingNewPair(path)));
  switch (keyFormOf(content)) {
    case KeyForm::privateKey:
      return it.found.wrong(path,
                            "no RSA public key in DER form but a private one, in a file for "
                            "everybody: whoever has read it can sign storebags; take it away, and "
                            "sign with a new one",
                            it.asRoot(movingPrivateKey(path)));
    case KeyForm::publicPEM:
      return it.found.wrong(
          path, "no RSA public key in DER form but in PEM form; convert it",
          it.asRoot(fmt::format("openssl pkey -pubin -in {0} -pubout -outform DER -out {0}.new && "
                                "chmod 644 {0}.new && mv {0}.new {0}",
                                shellWord(path))));
    case KeyForm::none:
      return it.found.wrong(
          path,
          "no RSA public key in DER form, so no storebag is accepted; install the "
          "public half of the key that they are signed with, or make a new pair",
          it.asRoot(makingNewPair(path)));
  }
}

// Whether there is a key in the folder for further ones.
bool checkFurtherKeys(Inspection& it) {
  LocalFileSystem files;
  const std::string& folder = it.paths.furtherKeysFolder;
  const auto names = files.listDirectory(folder);
  if (!names && names.failure().code != ENOENT) it.reportUnreadable(folder);
  if (!names) return false;
  bool hasKey = false;
  for (const std::string& name : names.value()) {
    const std::string path = fmt::format("{}/{}", folder, name);
    const Result<std::string> content = readRegularFile(path, publicKeyLimit);
    if (name.starts_with('.') || !name.ends_with(".der"))
      it.found.wrong(path, "is not read: keys in this folder are files *.der");
    else if (!content && content.failure().code == EACCES)
      it.reportUnreadable(path);
    else if (!content)
      it.found.wrong(path, content.failure().message + ", so it is passed over");
    else
      checkKey(path, content.value(), it);
    hasKey = hasKey || (content && RSAPublicKey::fromDER(content.value()));
  }
  return hasKey;
}

}  // namespace

void checkPublicKey(Inspection& it) {
  LocalFileSystem files;
  const std::string path = publicKeyFileInForce(files, it.paths);
  const bool hasOthers = checkFurtherKeys(it);
  const Result<std::string> content = readRegularFile(path, publicKeyLimit);
  if (content) return checkKey(path, content.value(), it);
  if (content.failure().code == EACCES) return it.reportUnreadable(path);
  if (hasOthers && content.failure().code == ENOENT)
    return it.found.note(path, "missing: storebags are taken by the further keys alone");
  it.found.wrong(path,
                 content.failure().message +
                     ", so no storebag is accepted; install the public half of the key that "
                     "they are signed with, or make a new pair",
                 it.asRoot(makingNewPair(path)));
}

}  // namespace corvid
