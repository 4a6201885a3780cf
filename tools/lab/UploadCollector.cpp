#include "tools/lab/UploadCollector.h"

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string_view>

#include "base/Text.h"
#include "base/URL.h"
#include "base/Value.h"
#include "platform/data/Crypto.h"
#include "tools/lab/EventCollector.h"
#include "tools/lab/Gunzip.h"

namespace corvid::lab {

namespace {

Dictionary queryOf(std::string_view target) {
  Dictionary query;
  const std::size_t mark = target.find('?');
  if (mark == std::string_view::npos) return query;
  for (const std::string_view pair : split(target.substr(mark + 1), '&')) {
    const std::size_t nameEnd = std::min(pair.find('='), pair.size());
    const std::string_view value = pair.substr(std::min(nameEnd + 1, pair.size()));
    query.set(replacingInvalidUTF8(percentDecoded(pair.substr(0, nameEnd))),
              replacingInvalidUTF8(percentDecoded(value)));
  }
  return query;
}

Dictionary describedFile(const std::string& content) {
  Dictionary file{{"size", content.size()}, {"sha256", hexadecimal(sha256(content))}};
  if (content.size() <= UploadCollector::shownBytes && isValidUTF8(content))
    file.set("content", content);
  return file;
}

}  // namespace

Answer UploadCollector::answer(const Request& request) const {
  if (request.method != "POST") return {.status = 405, .body = "files come by POST\n"};
  Dictionary entry{{"server", "upload"},
                   {"target", request.target},
                   {"headers", headerDictionary(request.headers)},
                   {"bytes", request.body.size()},
                   {"query", queryOf(request.target)}};
  const std::optional<std::string> content = gunzip(request.body);
  if (content)
    entry.set("file", describedFile(*content));
  else
    entry.set("error", "the body is not gzip");
  _log.append(entry);
  if (!content) return {.status = 400, .body = "the body is not gzip\n"};
  return {.status = 200,
          .headers = {{"Content-Type", "application/json"}},
          .body = "{\"success\":true}\n"};
}

}  // namespace corvid::lab
