#include "tools/corvidctl/SessionCalls.h"

#include <chrono>
#include <map>
#include <thread>

#include "tools/JSONValues.h"

namespace corvid::ctl {

using tools::Arguments;
using tools::InputError;

namespace {

Value orNull(const std::optional<Dictionary>& dictionary) {
  return dictionary ? tools::jsonFromValue(*dictionary) : Value();
}
Value orNull(const std::optional<std::string>& text) { return text ? Value(*text) : Value(); }
Value orNull(const std::optional<Array>& array) {
  return array ? tools::jsonFromValue(*array) : Value();
}
Value orNull(const std::optional<CorvidError>& error) {
  if (!error) return {};
  return Dictionary{{"domain", error->domain},
                    {"code", error->code},
                    {"description", error->localizedDescription}};
}

std::uint16_t number16(const Arguments& in, std::string_view key) {
  return static_cast<std::uint16_t>(in.integer(key, 0, 65535).value_or(0));
}

using Answer = void (*)(const CallOutcome&, Dictionary& line);

void noAnswer(const CallOutcome&, Dictionary&) {}
void statesAnswer(const CallOutcome& outcome, Dictionary& line) {
  line.set("states", orNull(outcome.states));
}
void urlAnswer(const CallOutcome& outcome, Dictionary& line) {
  line.set("url", orNull(outcome.text));
}
void resultAnswer(const CallOutcome& outcome, Dictionary& line) {
  line.set("result", orNull(outcome.text));
}
void flushAnswer(const CallOutcome& outcome, Dictionary& line) {
  line.set("result", orNull(outcome.text));
  line.set("error", orNull(outcome.failure));
}
void fileAnswer(const CallOutcome& outcome, Dictionary& line) {
  line.set("success", outcome.success);
}
void logDataAnswer(const CallOutcome& outcome, Dictionary& line) {
  line.set("success", outcome.success);
  line.set("error", orNull(outcome.failure));
}

struct Operation {
  CallOutcome (*call)(Client&, const Arguments&, bool reply);
  Answer answer;
};

const std::map<std::string, Operation, std::less<>>& operations() {
  static const std::map<std::string, Operation, std::less<>> table{
      {"setSessionInfo",
       {[](Client& client, const Arguments& in, bool) {
          return client.setSessionInfo(in.dictionary("sessionInfo").value_or(Dictionary()),
                                       in.dictionary("userInfo"),
                                       in.array("frameworksToCheck").value_or(Array()),
                                       in.boolean("hasAggregationBlock").value_or(false));
        },
        noAnswer}},
      {"startConfig",
       {[](Client& client, const Arguments&, bool reply) { return client.startConfig(reply); },
        statesAnswer}},
      {"fetchStates",
       {[](Client& client, const Arguments& in, bool reply) {
          return client.fetchStates(in.dictionary("userInfo"), reply);
        },
        statesAnswer}},
      {"fetchDisplayURL",
       {[](Client& client, const Arguments&, bool reply) { return client.fetchDisplayURL(reply); },
        urlAnswer}},
      {"sendMessage",
       {[](Client& client, const Arguments& in, bool reply) {
          return client.sendMessage(number16(in, "category"), number16(in, "type"),
                                    in.dictionary("payload"), reply);
        },
        resultAnswer}},
      {"sendMessageWithDictionary",
       {[](Client& client, const Arguments& in, bool reply) {
          return client.sendMessageWithDictionary(in.dictionary("message").value_or(Dictionary()),
                                                  reply);
        },
        resultAnswer}},
      {"flush",
       {[](Client& client, const Arguments&, bool reply) { return client.flush(reply); },
        flushAnswer}},
      {"finish",
       {[](Client& client, const Arguments&, bool reply) { return client.finish(reply); },
        resultAnswer}},
      {"uploadFile",
       {[](Client& client, const Arguments& in, bool reply) {
          return client.uploadFile(in.requiredPath("path"), reply);
        },
        fileAnswer}},
      {"uploadLogData",
       {[](Client& client, const Arguments& in, bool reply) {
          return client.uploadLogData(in.array("logData").value_or(Array()), reply);
        },
        logDataAnswer}},
      {"sendSingleMessage",
       {[](Client& client, const Arguments& in, bool reply) {
          return client.sendSingleMessage(in.dictionary("sessionInfo").value_or(Dictionary()),
                                          in.dictionary("userInfo"), number16(in, "category"),
                                          number16(in, "type"), in.dictionary("payload"), reply);
        },
        resultAnswer}},
      {"sleep",
       {[](Client&, const Arguments& in, bool) {
          std::this_thread::sleep_for(std::chrono::duration<double>(in.requiredSeconds("seconds")));
          return CallOutcome{};
        },
        noAnswer}},
  };
  return table;
}

std::string namesOfCalls() {
  std::string names;
  for (const auto& [name, operation] : operations()) names += (names.empty() ? "" : ", ") + name;
  return names;
}

}  // namespace

Dictionary performCall(Client& client, const Dictionary& line) {
  const Arguments arguments(line);
  const std::string name = arguments.requiredText("call");
  const auto operation = operations().find(name);
  if (operation == operations().end())
    throw InputError("there is no call \"" + name + "\"; there are " + namesOfCalls());
  const CallOutcome outcome =
      operation->second.call(client, arguments, arguments.boolean("reply").value_or(true));

  Dictionary answer{{"call", name}};
  if (outcome.end == CORVID_OUTCOME_ANSWERED) operation->second.answer(outcome, answer);
  if (outcome.end == CORVID_OUTCOME_UNANSWERED) answer.set("answered", false);
  return answer;
}

Dictionary messageEvent(const std::optional<Dictionary>& message, double timestamp,
                        std::uint16_t category, std::uint16_t type,
                        const std::optional<Dictionary>& payload) {
  return {{"event", "message"},
          {"message", orNull(message)},
          {"timestamp", timestamp == 0 ? Value(0) : Value(timestamp)},
          {"category", category},
          {"type", type},
          {"payload", orNull(payload)}};
}

}  // namespace corvid::ctl
