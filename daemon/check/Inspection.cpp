#include "daemon/check/Inspection.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include "base/Text.h"
#include "platform/data/LocalFileSystem.h"

namespace corvid {

namespace {

// As one part of a command of sed's, whose separator is "|".
std::string sedText(std::string_view text, std::string_view marks) {
  std::string escaped;
  for (const char c : text) {
    if (marks.find(c) != std::string_view::npos) escaped.push_back('\\');
    escaped.push_back(c);
  }
  return escaped;
}

bool standsInPath(const char* program) {
  const char* const path = std::getenv("PATH");
  if (!path) return false;
  return std::ranges::any_of(split(path, ':'), [&](std::string_view folder) {
    return mayStart(fmt::format("{}/{}", folder, program));
  });
}

// The first folder above the path, or the path, that the daemon's user may not enter or read.
std::string firstClosed(const std::string& path) {
  const std::filesystem::path whole(path);
  std::filesystem::path part;
  for (const auto& name : whole) {
    part /= name;
    if (part == whole) break;
    if (!mayEnter(part)) return part;
  }
  return path;
}

}  // namespace

std::string shellWord(std::string_view text) {
  const bool isPlain = !text.empty() && std::ranges::all_of(text, [](char c) {
    return isASCIILetterOrDigit(c) ||
           std::string_view("-_./:,+@%").find(c) != std::string_view::npos;
  });
  if (isPlain && text.front() != '-') return std::string(text);
  std::string word = "'";
  for (const char c : text) word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return word + "'";
}

std::string Inspection::asRoot(std::string_view command) const {
  if (runner == 0) return std::string(command);
  return "sudo sh -c " + shellWord(command);
}

std::string Inspection::corvidctl() const {
  std::string program = "corvidctl";
  std::error_code error;
  if (!standsInPath("corvidctl")) {
    const auto folder = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    for (const auto& beside : {folder / "corvidctl", folder.parent_path() / "bin/corvidctl"})
      if (mayStart(beside)) {
        program = shellWord(beside.string());
        break;
      }
  }
  return paths.root.empty() ? program : fmt::format("{} --root {}", program, shellWord(paths.root));
}

std::string Inspection::editing(const std::string& path, std::string_view text,
                                std::string_view replacement) const {
  const Result<std::string> content = readRegularFile(path);
  if (text.empty() || text.find('\n') != text.npos || !content) return {};
  const auto first = content.value().find(text);
  if (first == std::string::npos || content.value().find(text, first + 1) != std::string::npos)
    return {};
  const std::string command =
      fmt::format("s|{}|{}|", sedText(text, "\\.*[]^$|"), sedText(replacement, "\\&|"));
  return asRoot(fmt::format("sed -i {} {}", shellWord(command), shellWord(path)));
}

void Inspection::reportFault(const std::string& path, const SettingFault& fault) {
  found.wrong(path, fmt::format("\"{}\" {}", fault.key, fault.what),
              editing(path, fault.text, fault.replacement));
}

void Inspection::reportUnusable(const std::string& path, const Failure& failure,
                                Findings::Kind ifMissing, std::string_view missing) {
  if (failure.code == ENOENT) return found.add(ifMissing, path, missing, {});
  if (failure.code == EACCES) return reportUnreadable(path);
  found.wrong(path, failure.message +
                        "; make it a property list with a dictionary that the daemon may read");
}

void Inspection::reportUnreadable(const std::string& path) {
  const std::string closed = firstClosed(path);
  std::error_code error;
  const bool isFolder = closed != path || std::filesystem::is_directory(path, error);
  // What is the daemon's own is for nobody else.
  const bool isOwn = path.starts_with(paths.home + "/") || path == paths.home;
  const std::string command =
      isOwn ? fmt::format("chown {} {} && chmod u+r{} {}", daemon.user, shellWord(closed),
                          isFolder ? "wx" : "w", shellWord(closed))
            : fmt::format("chmod a+r{} {}", isFolder ? "x" : "", shellWord(closed));
  found.wrong(path,
              closed == path ? fmt::format("user {} may not read it", daemon.name)
                             : fmt::format("user {} may not enter {}", daemon.name, closed),
              asRoot(command));
}

}  // namespace corvid
