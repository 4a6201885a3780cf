// Publishes a folder of property lists as signed storebags.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/Result.h"
#include "base/Value.h"
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

  // The storebag name that a request's target asks for; empty where it asks for none.
  static std::string nameIn(std::string_view target);
  // The names that are published, sorted.
  std::vector<std::string> names() const;
  // The list of that name as it would be signed now; the failure says why there is none.
  Result<Value> list(const std::string& name) const;
  std::string fileOf(const std::string& name) const { return _folder + "/" + name + ".plist"; }

 private:
  const std::string _folder;
  const StorebagSigner& _signer;
  const int _maxAge;
  const Placeholder _placeholder;
};

}  // namespace corvid::lab
