#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/data/LocalFileSystem.h"
#include "tools/signing/SigningKey.h"
#include "tools/storebag/Commands.h"
#include "tools/storebag/Source.h"

namespace corvid::storebag {

namespace fs = std::filesystem;

int runKeygenCommand(const KeygenOptions& options) {
  const std::string privateFile = fs::path(options.folder) / "private.pem";
  const std::string publicFile = fs::path(options.folder) / "publicKey.der";
  for (const std::string& file : {privateFile, publicFile})
    if (std::error_code error; fs::exists(fs::symlink_status(file, error)))
      throw CommandError(file + " is there already; take another folder");
  std::error_code error;
  fs::create_directories(options.folder, error);
  if (error) throw CommandError("cannot make " + options.folder + ": " + error.message());

  const auto key = signing::SigningKey::make(options.bits);
  key.writePrivateKey(privateFile);
  if (const auto failure = createRegularFile(publicFile, key.publicKeyDER(), 0666)) {
    unlink(privateFile.c_str());
    throw CommandError(failure->message);
  }
  std::puts(key.id().c_str());
  return 0;
}

}  // namespace corvid::storebag
