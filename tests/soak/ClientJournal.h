// What the clients of a soak write down of their sessions, so that it is known even of those that
// are killed.
#pragma once

#include <string>
#include <string_view>

#include "base/Descriptor.h"
#include "tests/soak/History.h"

namespace corvid::soak {

// A file of lines, each written whole before the call returns.
//
// Threads   any.
// Errors    The constructor throws std::runtime_error where the file cannot be made.
class ClientJournal {
 public:
  explicit ClientJournal(const std::string& path);

  void opened(std::string_view session, std::string_view kind) const;
  void ended(std::string_view session) const;
  // Before the call; the event counts as answered only once that was written too.
  void sent(std::string_view mark, std::string_view session) const;
  // `dropped` is the reason that the answer gave, empty where the event was taken.
  void answered(std::string_view mark, std::string_view dropped) const;
  // `number` tells flushes of a session apart, from 0.
  void flushAsked(std::string_view session, std::size_t number) const;
  void flushAnswered(std::string_view session, std::size_t number) const;

  // Adds what stands in such a file. A last line that is not whole is passed over.
  static void read(const std::string& path, History& history);

 private:
  void write(std::string line) const;

  Descriptor _file;
};

}  // namespace corvid::soak
