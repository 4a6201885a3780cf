#include "tools/corvidctl/SessionCalls.h"

#include <chrono>
#include <limits>
#include <map>
#include <thread>

#include "platform/base/Reading.h"
#include "tools/corvidctl/JSONValues.h"

namespace corvid::ctl {

namespace {

Value orNull(const std::optional<Dictionary>& dictionary) {
  return dictionary ? jsonFromValue(*dictionary) : Value();
}
Value orNull(const std::optional<std::string>& text) { return text ? Value(*text) : Value(); }
Value orNull(const std::optional<Array>& array) { return array ? jsonFromValue(*array) : Value(); }
Value orNull(const std::optional<CorvidError>& error) {
  if (!error) return {};
  return Dictionary{{"domain", error->domain},
                    {"code", error->code},
                    {"description", error->localizedDescription}};
}

// The arguments of one line. A key that is left out, or null, is an absent argument.
class Arguments {
 public:
  explicit Arguments(const Dictionary& line) : _line(line) {}

  std::optional<Dictionary> dictionary(std::string_view key) const {
    const Value* value = find(key);
    if (!value) return std::nullopt;
    if (!value->dictionary()) throw wrong(key, "an object");
    return *value->dictionary();
  }
  Dictionary dictionaryOrEmpty(std::string_view key) const {
    return dictionary(key).value_or(Dictionary());
  }
  Array array(std::string_view key) const {
    const Value* value = find(key);
    if (!value) return {};
    if (!value->array()) throw wrong(key, "an array");
    return *value->array();
  }
  bool boolean(std::string_view key, bool absent) const {
    const Value* value = find(key);
    if (!value) return absent;
    if (!value->boolean()) throw wrong(key, "true or false");
    return *value->boolean();
  }
  std::uint16_t number16(std::string_view key) const {
    const Value* value = find(key);
    if (!value) return 0;
    const auto number = value->integer();
    if (!number || *number < 0 || *number > std::numeric_limits<std::uint16_t>::max())
      throw wrong(key, "a whole number from 0 to 65535");
    return static_cast<std::uint16_t>(*number);
  }
  double seconds(std::string_view key) const {
    const Value* value = find(key);
    const auto number = asNumber(value);
    if (!number || value->boolean() || !(*number >= 0) || *number > 3600)
      throw wrong(key, "a number of seconds from 0 to 3600");
    return *number;
  }
  std::string string(std::string_view key) const {
    const Value* value = find(key);
    if (!value || !value->string()) throw wrong(key, "a text");
    return *value->string();
  }
  std::string path(std::string_view key) const {
    const std::string text = string(key);
    if (text.empty() || text.find('\0') != std::string::npos)
      throw wrong(key, "the path of a file");
    return text;
  }

 private:
  const Value* find(std::string_view key) const {
    const Value* value = _line.find(key);
    return value && !value->isNull() ? value : nullptr;
  }
  static InputError wrong(std::string_view key, const char* wanted) {
    return InputError("\"" + std::string(key) + "\" must be " + wanted);
  }

  const Dictionary& _line;
};

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
          return client.setSessionInfo(in.dictionaryOrEmpty("sessionInfo"),
                                       in.dictionary("userInfo"), in.array("frameworksToCheck"),
                                       in.boolean("hasAggregationBlock", false));
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
          return client.sendMessage(in.number16("category"), in.number16("type"),
                                    in.dictionary("payload"), reply);
        },
        resultAnswer}},
      {"sendMessageWithDictionary",
       {[](Client& client, const Arguments& in, bool reply) {
          return client.sendMessageWithDictionary(in.dictionaryOrEmpty("message"), reply);
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
          return client.uploadFile(in.path("path"), reply);
        },
        fileAnswer}},
      {"uploadLogData",
       {[](Client& client, const Arguments& in, bool reply) {
          return client.uploadLogData(in.array("logData"), reply);
        },
        logDataAnswer}},
      {"sendSingleMessage",
       {[](Client& client, const Arguments& in, bool reply) {
          return client.sendSingleMessage(in.dictionaryOrEmpty("sessionInfo"),
                                          in.dictionary("userInfo"), in.number16("category"),
                                          in.number16("type"), in.dictionary("payload"), reply);
        },
        resultAnswer}},
      {"sleep",
       {[](Client&, const Arguments& in, bool) {
          std::this_thread::sleep_for(std::chrono::duration<double>(in.seconds("seconds")));
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
  const std::string name = arguments.string("call");
  const auto operation = operations().find(name);
  if (operation == operations().end())
    throw InputError("there is no call \"" + name + "\"; there are " + namesOfCalls());
  const CallOutcome outcome =
      operation->second.call(client, arguments, arguments.boolean("reply", true));

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
