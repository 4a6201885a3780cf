#include "tools/corvidctl/SessionCommand.h"

#include <fmt/format.h>

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "platform/data/JSON.h"
#include "tools/JSONValues.h"
#include "tools/corvidctl/Client.h"
#include "tools/corvidctl/LineReader.h"
#include "tools/corvidctl/SessionCalls.h"

namespace corvid::ctl {

using tools::InputError;

namespace {

// The largest message, with every byte of it written as an escape, would take more; as Base64 or
// plain text it takes a third of this.
constexpr std::size_t longestLine = std::size_t{64} << 20;

// Standard output, which the library's thread writes to as well.
class Output {
 public:
  void print(const Dictionary& line) {
    const std::lock_guard lock(_mutex);
    write(line);
  }
  // Nothing comes after this line.
  [[noreturn]] void printAndExit(const Dictionary& line, int status) {
    const std::lock_guard lock(_mutex);
    write(line);
    std::_Exit(status);
  }

 private:
  static void write(const Dictionary& line) {
    const std::string text =
        writeJSON(line).value_or("{\"error\":\"the outcome cannot be written as JSON\"}");
    std::printf("%s\n", text.c_str());
    std::fflush(stdout);
  }

  std::mutex _mutex;
};

Dictionary parsed(const std::string& text) {
  const Result<Value> json = parseJSON(text);
  if (!json) throw InputError("it is not JSON: " + json.failure().message);
  const Result<Value> value = tools::valueFromJSON(json.value());
  if (!value) throw InputError(value.failure().message);
  if (!value.value().dictionary()) throw InputError("it is not a JSON object");
  return *value.value().dictionary();
}

Dictionary outcomeOf(Client& client, const LineReader& input) {
  try {
    if (input.isTooLong()) throw InputError(fmt::format("it is longer than {} bytes", longestLine));
    return performCall(client, parsed(input.line()));
  } catch (const InputError& error) {
    return {{"error", fmt::format("line {} is passed over: {}", input.number(), error.what())}};
  } catch (const std::exception& error) {
    return {{"error", fmt::format("line {} failed: {}", input.number(), error.what())}};
  }
}

}  // namespace

int runSessionCommand(const std::string& root, std::istream& input) {
  Output output;
  Client::Handlers handlers;
  handlers.message = [&](auto message, double timestamp, auto category, auto type, auto payload) {
    output.print(messageEvent(message, timestamp, category, type, payload));
  };
  handlers.invalidated = [&] { output.printAndExit({{"event", "invalidated"}}, 1); };

  Client client(root, std::move(handlers));
  for (LineReader lines(input, longestLine); lines.next();)
    if (lines.isTooLong() || lines.line().find_first_not_of(" \t\r") != std::string::npos)
      output.print(outcomeOf(client, lines));
  return 0;
}

}  // namespace corvid::ctl
