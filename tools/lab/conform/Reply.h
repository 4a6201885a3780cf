// What came back from a collector.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace corvid::lab::conform {

struct Reply {
  enum class Kind {
    answer,
    silence,  // nothing whole within the time
    end,      // of the connection, before a whole answer
    noHTTP    // bytes that are no answer
  };

  Kind kind = Kind::answer;
  int status = 0;
  std::vector<std::pair<std::string, std::string>> headers{};
  std::string body{};

  // The first value of the header, found without regard to case.
  std::optional<std::string> header(std::string_view name) const;
  bool isTaken() const { return isIn(200); }
  bool isRefused() const { return isIn(400); }
  bool isFailed() const { return isIn(500); }
  // Whether it says that its connection ends with it.
  bool closes() const;
  // One line for people: the status and the first line of the body, or what came instead.
  std::string text() const;

 private:
  bool isIn(int hundred) const {
    return kind == Kind::answer && status >= hundred && status < hundred + 100;
  }
};

// Takes an HTTP/1.1 answer from the front of `bytes`; nothing while it is not whole. `isOver`: the
// connection has ended, and no more will come.
std::optional<Reply> takeReply(std::string& bytes, bool isOver);

}  // namespace corvid::lab::conform
