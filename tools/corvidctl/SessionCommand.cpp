#include <fmt/format.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/data/JSON.h"
#include "tools/Arguments.h"
#include "tools/JSONValues.h"
#include "tools/corvidctl/Client.h"
#include "tools/corvidctl/Commands.h"

namespace corvid::ctl {

using tools::Arguments;
using tools::InputError;

namespace {

// The largest message, with every byte of it written as an escape, would take more; as Base64 or
// plain text it takes a third of this.
constexpr std::size_t longestLine = std::size_t{64} << 20;

template <class Content>
Value orNull(const std::optional<Content>& content) {
  return content ? tools::jsonFromValue(*content) : Value();
}
Value orNull(const std::optional<client::Error>& error) {
  if (!error) return {};
  return Dictionary{
      {"domain", error->domain}, {"code", error->code}, {"description", error->description}};
}

std::uint16_t number16(const Arguments& in, std::string_view key) {
  return static_cast<std::uint16_t>(in.integer(key, 0, 65535).value_or(0));
}

// A view of what may be absent, for as long as `dictionary` is there.
client::DictionaryView viewOf(const std::optional<client::Dictionary>& dictionary) {
  return dictionary ? client::DictionaryView(*dictionary) : client::Session::none();
}

std::optional<client::Dictionary> dictionaryAt(const Arguments& in, std::string_view key) {
  const auto dictionary = in.dictionary(key);
  return dictionary ? std::optional(clientDictionary(*dictionary)) : std::nullopt;
}
client::Dictionary dictionaryOrEmptyAt(const Arguments& in, std::string_view key) {
  return clientDictionary(in.dictionary(key).value_or(Dictionary()));
}
client::Array arrayOrEmptyAt(const Arguments& in, std::string_view key) {
  return clientArray(in.array(key).value_or(Array()));
}

// What an answer tells, by its name in the line.
Value told(const Call& call, std::string_view name) {
  if (name == "states") return orNull(call.states);
  if (name == "success") return call.success;
  if (name == "error") return orNull(call.failure);
  return orNull(call.text);
}

struct Operation {
  client::Status (*make)(client::Session&, const Arguments&, Call&);
  std::vector<const char*> answer;  // what an answer tells
};

// An operation that takes nothing but its callbacks.
template <auto operation>
client::Status plain(client::Session& session, const Arguments&, Call& call) {
  return (session.*operation)(call, call.end());
}

const std::map<std::string, Operation, std::less<>>& operations() {
  using client::Session;
  static const std::map<std::string, Operation, std::less<>> table{
      {"setSessionInfo",
       {[](Session& session, const Arguments& in, Call& call) {
          return session.setSessionInfo(
              dictionaryOrEmptyAt(in, "sessionInfo"), viewOf(dictionaryAt(in, "userInfo")),
              arrayOrEmptyAt(in, "frameworksToCheck"),
              in.boolean("hasAggregationBlock").value_or(false), call.end());
        },
        {}}},
      {"startConfig", {plain<&Session::startConfig>, {"states"}}},
      {"fetchStates",
       {[](Session& session, const Arguments& in, Call& call) {
          return session.fetchStates(viewOf(dictionaryAt(in, "userInfo")), call, call.end());
        },
        {"states"}}},
      {"fetchDisplayURL", {plain<&Session::fetchDisplayURL>, {"url"}}},
      {"sendMessage",
       {[](Session& session, const Arguments& in, Call& call) {
          return session.sendMessage(number16(in, "category"), number16(in, "type"),
                                     viewOf(dictionaryAt(in, "payload")), call, call.end());
        },
        {"result"}}},
      {"sendMessageWithDictionary",
       {[](Session& session, const Arguments& in, Call& call) {
          return session.sendMessage(dictionaryOrEmptyAt(in, "message"), call, call.end());
        },
        {"result"}}},
      {"flush", {plain<&Session::flush>, {"result", "error"}}},
      {"finish", {plain<&Session::finish>, {"result"}}},
      {"uploadFile",
       {[](Session& session, const Arguments& in, Call& call) {
          return session.uploadFile(in.requiredPath("path"), call, call.end());
        },
        {"success"}}},
      {"uploadLogData",
       {[](Session& session, const Arguments& in, Call& call) {
          return session.uploadLogData(arrayOrEmptyAt(in, "logData"), call, call.end());
        },
        {"success", "error"}}},
      {"sendSingleMessage",
       {[](Session& session, const Arguments& in, Call& call) {
          return session.sendSingleMessage(dictionaryOrEmptyAt(in, "sessionInfo"),
                                           viewOf(dictionaryAt(in, "userInfo")),
                                           number16(in, "category"), number16(in, "type"),
                                           viewOf(dictionaryAt(in, "payload")), call, call.end());
        },
        {"result"}}},
      {"sleep",
       {[](Session&, const Arguments& in, Call& call) -> client::Status {
          std::this_thread::sleep_for(std::chrono::duration<double>(in.requiredSeconds("seconds")));
          call.end()(CORVID_OUTCOME_DONE);
          return CORVID_OK;
        },
        {}}},
  };
  return table;
}

std::string namesOfCalls() {
  std::string names;
  for (const auto& [name, operation] : operations()) names += (names.empty() ? "" : ", ") + name;
  return names;
}

// Makes the call that `line` describes, property-list values in place of their JSON forms, and
// gives the line that tells its outcome.
Dictionary performCall(Client& client, const Dictionary& line) {
  const Arguments in(line);
  const std::string name = in.requiredText("call");
  const auto operation = operations().find(name);
  if (operation == operations().end())
    throw InputError("there is no call \"" + name + "\"; there are " + namesOfCalls());
  Call call(in.boolean("reply").value_or(true));
  client.perform(
      call, [&](client::Session& session) { return operation->second.make(session, in, call); });

  Dictionary answer{{"call", name}};
  if (call.outcome == CORVID_OUTCOME_ANSWERED)
    for (const char* part : operation->second.answer) answer.set(part, told(call, part));
  if (call.outcome == CORVID_OUTCOME_UNANSWERED) answer.set("answered", false);
  return answer;
}

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

Dictionary outcomeOf(Client& client, const Line& line, std::size_t number) {
  try {
    if (line.isTooLong) throw InputError(fmt::format("it is longer than {} bytes", longestLine));
    return performCall(client, parsed(line.text));
  } catch (const InputError& error) {
    return {{"error", fmt::format("line {} is passed over: {}", number, error.what())}};
  } catch (const std::exception& error) {
    return {{"error", fmt::format("line {} failed: {}", number, error.what())}};
  }
}

}  // namespace

std::optional<Line> readLine(std::istream& input, std::size_t longest) {
  using Traits = std::istream::traits_type;
  std::streambuf& bytes = *input.rdbuf();
  if (Traits::eq_int_type(bytes.sgetc(), Traits::eof())) return std::nullopt;
  Line line{};
  for (;;) {
    const Traits::int_type byte = bytes.sbumpc();
    if (Traits::eq_int_type(byte, Traits::eof()) || byte == '\n') return line;
    if (line.text.size() < longest)
      line.text.push_back(Traits::to_char_type(byte));
    else
      line.isTooLong = true;
  }
}

int runSessionCommand(const std::string& root, std::istream& input) {
  Output output;
  client::Session::Options handlers;
  handlers.message = [&](client::DictionaryView message, double timestamp, std::uint16_t category,
                         std::uint16_t type, client::DictionaryView payload) {
    output.print({{"event", "message"},
                  {"message", orNull(dictionaryFrom(message))},
                  {"timestamp", timestamp == 0 ? Value(0) : Value(timestamp)},
                  {"category", category},
                  {"type", type},
                  {"payload", orNull(dictionaryFrom(payload))}});
  };
  handlers.invalidated = [&] { output.printAndExit({{"event", "invalidated"}}, 1); };
  Client client(root, std::move(handlers));
  std::size_t number = 0;
  while (const std::optional<Line> line = readLine(input, longestLine)) {
    ++number;
    if (line->isTooLong || line->text.find_first_not_of(" \t\r") != std::string::npos)
      output.print(outcomeOf(client, *line, number));
  }
  return 0;
}

}  // namespace corvid::ctl
