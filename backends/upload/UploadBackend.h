// Uploads a client's files to a server.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "backends/CorvidBackend.h"
#include "platform/ExtensionTokens.h"
#include "platform/FileSystem.h"
#include "platform/HTTPClient.h"

namespace corvid {

// Reads a granted file, compresses it and posts it; has the file removed where the server confirms.
//
// Threads   As CorvidBackend says. An upload blocks the client's thread for the whole exchange.
// Limits    limits::uploadBytes a file, limits::uploadBytesUnderWay together and what leaves room
//           for others of one user; what goes past any is refused before anything of it is read.
//           The exchange has a minute and as long as the body takes at leastBytesPerSecond.
// Memory    A piece of the file and of its compressed form, whose rest is in a file of the daemon's
// own
//           home, without a name.
// Errors    False where nothing was sent, with one log line; once the request has started, true
//           whatever came of it. The file is kept unless the server confirmed.
class UploadBackend final : public CorvidBackend {
 public:
  // What a server takes at the very least.
  static constexpr std::size_t leastBytesPerSecond = std::size_t{32} << 10;

  // Of a compressed file, in memory.
  static constexpr std::size_t mostBytesInMemory = std::size_t{64} << 10;

  // Nothing, after one error line, for a profile without "post_url".
  static std::shared_ptr<UploadBackend> initWithName(const std::string& name,
                                                     const Dictionary* profile,
                                                     const SharedIdentity& identity);
  UploadBackend(const std::string& name, const Dictionary& profile, const SharedIdentity& identity);

  bool uploadFileAtPath(const std::string& path, const std::string& extensionToken) override;

  std::optional<std::string> uploadURL() const;
  void setUploadURL(std::optional<std::string> uploadURL);

 private:
  // Makes the file's compressed content the request's; false after one error line.
  bool compressInto(HTTPRequest& request, ExtensionTokens::Handle& file) const;
  bool append(HTTPRequest& request, std::shared_ptr<UnnamedFile>& rest,
              std::string_view bytes) const;
  std::string requestURL(const std::string& uploadURL, const std::string& path) const;

  std::optional<std::string> _uploadURL GUARDED_BY(_lock);
};

}  // namespace corvid
