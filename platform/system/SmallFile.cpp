#include "platform/system/SmallFile.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "platform/base/Descriptor.h"
#include "platform/base/Text.h"

namespace corvid {

namespace {

Failure systemFailure(int error) { return {std::strerror(error), error}; }

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// A shell word: in single quotes everything stands for itself, elsewhere a backslash takes the next
// character as it is.
std::string unquoted(std::string_view word) {
  std::string text;
  char quote = 0;
  for (std::size_t i = 0; i < word.size(); ++i) {
    const char c = word[i];
    if (quote == 0 ? c == '"' || c == '\'' : c == quote)
      quote = quote == 0 ? c : '\0';
    else if (c == '\\' && quote != '\'' && i + 1 < word.size())
      text.push_back(word[++i]);
    else
      text.push_back(c);
  }
  return text;
}

}  // namespace

Result<std::string> readSmallFile(const std::string& path, std::size_t limit) {
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  if (!file) return systemFailure(errno);
  struct stat status {};
  if (fstat(file.get(), &status) != 0) return systemFailure(errno);
  if (S_ISDIR(status.st_mode)) return systemFailure(EISDIR);
  if (!S_ISREG(status.st_mode)) return Failure{"Not a regular file", EINVAL};

  // The size is no help: the kernel's own files say 0 or a page.
  std::string content;
  for (;;) {
    char buffer[4096];
    const ssize_t count = read(file.get(), buffer, sizeof buffer);
    if (count == 0) return content;
    if (count < 0) {
      if (errno == EINTR) continue;
      return systemFailure(errno);
    }
    content.append(buffer, static_cast<std::size_t>(count));
    if (content.size() > limit) return systemFailure(EFBIG);
  }
}

std::optional<std::string> assignedValue(std::string_view text, std::string_view name) {
  std::string value;
  for (std::string_view line : split(text, '\n')) {
    line = trimmed(line);
    if (!line.starts_with(name) || line.substr(name.size(), 1) != "=") continue;
    value = unquoted(trimmed(line.substr(name.size() + 1)));
  }
  if (value.empty()) return std::nullopt;
  return value;
}

}  // namespace corvid
