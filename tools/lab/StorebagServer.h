// Publishes a folder of property lists as signed storebags.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "tools/lab/HTTPExchange.h"
#include "tools/lab/StorebagSigner.h"

namespace corvid::lab {

// Answers GET /bags/birch/NAME and /storebags/birch/NAME with FOLDER/NAME.plist, signed. The file
// is read at each request, so that editing it publishes a new storebag. Its "Last-Modified" is the
// file's; a conditional request with that value gets 304 without a body. Texts in the list that
// are "${...}" are replaced by what `placeholder` gives for the name inside.
//
// Threads   any.
class StorebagServer {
 public:
  using Placeholder = std::function<std::string(std::string_view name)>;

  // `signer` is borrowed. `maxAge` in seconds goes into "Cache-Control".
  StorebagServer(std::string folder, const StorebagSigner& signer, int maxAge,
                 Placeholder placeholder);

  Answer answer(const Request& request) const;

 private:
  const std::string _folder;
  const StorebagSigner& _signer;
  const int _maxAge;
  const Placeholder _placeholder;
};

}  // namespace corvid::lab
