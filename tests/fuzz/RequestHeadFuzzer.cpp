// Requests as bytes that nobody has checked: what the parser makes of them does not depend on how
// they are cut, and what it takes keeps to the bounds.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "gateway/Limits.h"
#include "gateway/http/RequestParser.h"
#include "tests/fuzz/Require.h"

namespace {

using namespace corvid;

struct Read {
  bool hasHead = false;
  bool isWhole = false;
  std::optional<fleet::Rule> fault;
  std::string method, target, body;
  std::vector<std::pair<std::string, std::string>> cvd;

  bool operator==(const Read&) const = default;
};

const std::string clientHeader = "X-Real-IP";

Read readInPieces(std::string_view input, std::size_t piece) {
  Read read;
  fleet::RequestParser parser(clientHeader);
  std::string pending;
  while (!input.empty() && !parser.isWhole() && !parser.fault()) {
    const std::size_t size = std::min(piece, input.size());
    pending.append(input.substr(0, size));
    input.remove_prefix(size);
    std::string_view view = pending;
    if (!read.hasHead) read.hasHead = parser.readHead(view);
    if (read.hasHead && !parser.isWhole())
      parser.readBody(view, [&](std::string_view part) {
        read.body += part;
        return true;
      });
    pending.erase(0, pending.size() - view.size());
  }
  read.isWhole = parser.isWhole();
  read.fault = parser.fault();
  read.method = parser.head().method;
  read.target = parser.head().target;
  read.cvd = parser.head().cvd;
  return read;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const Read whole = readInPieces(input, size);
  const Read cut = readInPieces(input, 7);
  // A head that is wrong is told as soon as that shows. Of one that comes in pieces that may be
  // later, and not before more has come than there is here.
  const bool isWaiting = !cut.fault && !cut.hasHead;
  fuzz::require(whole.fault.has_value() == cut.fault.has_value() || isWaiting);
  if (!whole.fault) {
    fuzz::require(whole.hasHead == cut.hasHead);
    // What stands in a head that is not whole may not have been looked at.
    if (whole.hasHead) fuzz::require(whole == cut);
  }
  if (whole.hasHead) {
    fuzz::require(whole.target.size() <= fleet::limits::headBytes);
    fuzz::require(whole.body.size() <= size);
  }
  return 0;
}
