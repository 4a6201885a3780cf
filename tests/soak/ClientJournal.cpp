#include "tests/soak/ClientJournal.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <stdexcept>

namespace corvid::soak {

ClientJournal::ClientJournal(const std::string& path)
    : _file(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600)) {
  if (!_file) throw std::runtime_error("cannot write " + path);
}

void ClientJournal::write(std::string line) const {
  line += '\n';
  if (::write(_file.get(), line.data(), line.size()) != static_cast<ssize_t>(line.size()))
    throw std::runtime_error("a client's journal cannot be written");
}

void ClientJournal::opened(std::string_view session, std::string_view kind) const {
  write(fmt::format("opened {} {} {}", now(), session, kind));
}
void ClientJournal::ended(std::string_view session) const {
  write(fmt::format("ended {} {}", now(), session));
}
void ClientJournal::sent(std::string_view mark, std::string_view session) const {
  write(fmt::format("sent {} {} {}", now(), mark, session));
}
void ClientJournal::answered(std::string_view mark, std::string_view dropped) const {
  write(fmt::format("answered {} {} {}", now(), mark, dropped.empty() ? "-" : dropped));
}
void ClientJournal::flushAsked(std::string_view session, std::size_t number) const {
  write(fmt::format("flush {} {} {}", now(), session, number));
}
void ClientJournal::flushAnswered(std::string_view session, std::size_t number) const {
  write(fmt::format("flushed {} {} {}", now(), session, number));
}

void ClientJournal::read(const std::string& path, History& history) {
  std::ifstream file(path);
  for (std::string text; std::getline(file, text) && !file.eof();) {
    std::istringstream line(text);
    std::string what, name, more;
    Time time = 0;
    line >> what >> time >> name >> more;
    if (what == "opened") {
      history.sessions[name] = {.kind = more, .opened = time};
    } else if (what == "ended") {
      history.sessions[name].ended = time;
    } else if (what == "sent") {
      history.events[name] = {.session = more, .sent = time};
    } else if (what == "answered") {
      Event& event = history.events[name];
      event.answered = time;
      event.dropped = more == "-" ? "" : more;
    } else if (what == "flush" || what == "flushed") {
      auto& flushes = history.sessions[name].flushes;
      const std::size_t number = std::stoul(more);
      if (flushes.size() <= number) flushes.resize(number + 1);
      if (what == "flush")
        flushes[number].asked = time;
      else
        flushes[number].answered = time;
    }
  }
}

}  // namespace corvid::soak
