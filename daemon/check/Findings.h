// What --check-config finds.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace corvid {

struct ConfigFinding {
  // Right; to be known, but no fault; or wrong, so that something will not work.
  enum class Kind { right, note, wrong };
  Kind kind;
  std::string path;  // of a file or folder; of what is neither, a word
  std::string what;  // what is the matter, in one line for people
  // What can be pasted into a shell so that the finding is none any more; empty where it takes a
  // person to decide.
  std::string command;
};

class Findings {
 public:
  using Kind = ConfigFinding::Kind;

  void right(std::string path, std::string what) { add(Kind::right, path, what, {}); }
  void note(std::string path, std::string what, std::string command = {}) {
    add(Kind::note, path, what, command);
  }
  void wrong(std::string path, std::string what, std::string command = {}) {
    add(Kind::wrong, path, what, command);
  }
  // The path is left out of `what`, which failures of reading begin with.
  void add(Kind kind, const std::string& path, std::string_view what, const std::string& command);

  const std::vector<ConfigFinding>& all() const { return _all; }
  std::size_t count(Kind kind) const;
  // A line for each, and one with their numbers: "2 wrong, 1 notes".
  std::string text() const;
  // One object: "findings" ("kind", "path", "what", "command"), "wrong", "notes".
  std::string json() const;

 private:
  std::vector<ConfigFinding> _all;
};

}  // namespace corvid
