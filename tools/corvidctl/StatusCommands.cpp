// The commands that look at the daemon through its control socket.
#include <fmt/format.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "base/Reading.h"
#include "config/Environment.h"
#include "platform/data/JSON.h"
#include "protocol/Reason.h"
#include "tools/Arguments.h"
#include "tools/corvidctl/Client.h"
#include "tools/corvidctl/Commands.h"
#include "tools/corvidctl/ControlClient.h"
#include "tools/corvidctl/StatusText.h"

namespace corvid::ctl {

namespace {

using std::chrono::steady_clock;

void print(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

Value valueIn(const std::string& json) {
  Result<Value> value = parseJSON(json);
  if (!value) throw CallError("the daemon's answer cannot be read: " + value.failure().message);
  return std::move(value).value();
}

Dictionary objectIn(const std::string& json) {
  const Value value = valueIn(json);
  return value.dictionary() ? *value.dictionary() : Dictionary();
}

Array arrayIn(const std::string& json) {
  const Value value = valueIn(json);
  return value.array() ? *value.array() : Array();
}

void printDecision(const std::string& line, bool asJSON, const Screen& screen) {
  print(asJSON ? line + "\n" : decisionText(objectIn(line), screen));
}

// A terminal whose keys come one by one and are not shown, on a screen of its own.
class KeyboardScreen {
 public:
  KeyboardScreen() {
    tcgetattr(STDIN_FILENO, &_before);
    termios raw = _before;
    raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    print("\x1b[?1049h\x1b[?25l");
  }
  ~KeyboardScreen() {
    print("\x1b[?25h\x1b[?1049l");
    tcsetattr(STDIN_FILENO, TCSANOW, &_before);
  }
  KeyboardScreen(const KeyboardScreen&) = delete;
  KeyboardScreen& operator=(const KeyboardScreen&) = delete;

  // Whether q was pressed, or nobody can press anything, before so many milliseconds have passed.
  static bool isLeft(int milliseconds) {
    pollfd keys{STDIN_FILENO, POLLIN, 0};
    if (poll(&keys, 1, milliseconds) <= 0) return false;
    char key = 0;
    return read(STDIN_FILENO, &key, 1) != 1 || key == 'q' || key == 'Q';
  }

 private:
  termios _before{};
};

}  // namespace

int runStatusCommand(const std::string& root, bool asJSON) {
  const std::string json = ControlClient(root).status();
  print(asJSON ? json + "\n" : statusText(objectIn(json), Screen::ofStandardOutput()));
  return 0;
}

int runSessionsCommand(const std::string& root, std::uint64_t session, bool asJSON) {
  const std::string json = ControlClient(root).sessions(session);
  print(asJSON ? json + "\n" : sessionsText(arrayIn(json), Screen::ofStandardOutput()));
  return 0;
}

int runExplainCommand(const std::string& root, const DecisionOptions& options) {
  const Screen screen = Screen::ofStandardOutput();
  for (const std::string& line : ControlClient(root).explain(options.session, options.last))
    printDecision(line, options.asJSON, screen);
  return 0;
}

int runTapCommand(const std::string& root, const DecisionOptions& options) {
  const Screen screen = Screen::ofStandardOutput();
  ControlClient control(root);
  control.watch(options.session, options.payload);
  const auto end = options.seconds ? steady_clock::now() + std::chrono::seconds(*options.seconds)
                                   : steady_clock::time_point::max();
  while (steady_clock::now() < end)
    for (const std::string& line : control.nextLines()) printDecision(line, options.asJSON, screen);
  return 0;
}

std::vector<std::string> reasonsOfOwnSession(const std::string& root) {
  std::vector<std::string> lines;
  const auto add = [&](std::string_view name, const Dictionary& of) {
    const std::string* const word = stringAt(of, "reason");
    const auto reason = word ? reasonOf(*word) : std::nullopt;
    if (!reason || reason == Reason::reporting || reason == Reason::takesNoEvents) return;
    lines.push_back(
        fmt::format("{}{}: {} {}", name, *word, textOf(*reason).what, textOf(*reason).remedy));
  };
  try {
    for (const Value& value : arrayIn(ControlClient(root).sessions(0))) {
      const Dictionary* const session = value.dictionary();
      if (session == nullptr || integerAt(*session, "pid") != getpid()) continue;
      add("", *session);
      if (const Array* const backends = arrayAt(*session, "backends"))
        for (const Value& backend : *backends)
          if (const Dictionary* const its = backend.dictionary())
            add(textAt(*its, "name").value_or("") + ": ", *its);
    }
  } catch (const CallError&) {
    lines.clear();
  }
  return lines;
}

int runTopCommand(const std::string& root) {
  ControlClient control(root);
  const auto look = [&](const Array& before, double seconds) {
    return topText(objectIn(control.status()), arrayIn(control.sessions(0)), before, seconds,
                   Screen::ofStandardOutput());
  };
  if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
    print(look({}, 0));
    return 0;
  }
  const KeyboardScreen keyboard;
  Array before;
  auto last = steady_clock::now();
  do {
    const auto now = steady_clock::now();
    const std::string text = look(before, std::chrono::duration<double>(now - last).count());
    last = now;
    before = arrayIn(control.sessions(0));
    print("\x1b[H\x1b[J" + text);
  } while (!KeyboardScreen::isLeft(1000));
  return 0;
}

int runMetricsCommand(const std::string& root) {
  print(ControlClient(root).metrics());
  return 0;
}

int runRefreshCommand(const std::string& root, const RefreshOptions& options) {
  if (options.clientType &&
      !storebagNameForClientType(static_cast<std::int32_t>(*options.clientType)))
    throw tools::InputError(
        fmt::format("client type {} has no storebag; types 5 to 17 have", *options.clientType));
  const auto touched = ControlClient(root).refresh(
      options.clientType ? static_cast<std::int32_t>(*options.clientType) : -1, options.states);
  for (const std::string& name : touched) print(name + "\n");
  if (touched.empty()) print("nothing was asked for yet\n");
  return 0;
}

int runLogLevelCommand(const std::string& root, LogLevel level, std::uint32_t seconds) {
  ControlClient(root).setLogLevel(static_cast<int>(level), seconds);
  return 0;
}

}  // namespace corvid::ctl
