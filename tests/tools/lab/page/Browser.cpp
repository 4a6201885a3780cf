#include "tests/tools/lab/page/Browser.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <stdexcept>
#include <utility>

#include "base/Reading.h"
#include "platform/data/Crypto.h"
#include "platform/data/JSON.h"

namespace corvid::lab {

using namespace std::chrono_literals;

// The ends that the browser gets, and those that stay here.
struct Browser::Pipes {
  Descriptor commandsOut{}, commandsIn{};
  Descriptor answersOut{}, answersIn{};
};

namespace {

// Where the browser looks for commands and puts its answers.
constexpr int commandNumber = 3;
constexpr int answerNumber = 4;

// Descriptors out of the way of those numbers.
std::pair<Descriptor, Descriptor> makePipe() {
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  const Descriptor out(ends[0]), in(ends[1]);
  return {Descriptor(fcntl(out.get(), F_DUPFD_CLOEXEC, 10)),
          Descriptor(fcntl(in.get(), F_DUPFD_CLOEXEC, 10))};
}

std::string exceptionText(const Dictionary& details) {
  const Dictionary* exception = dictionaryAt(details, "exception");
  const auto text = exception ? textAt(*exception, "description") : std::nullopt;
  return text.value_or(textAt(details, "text").value_or("an exception"));
}

std::string consoleText(const Dictionary& call) {
  std::string text;
  if (const Array* arguments = arrayAt(call, "args"))
    for (const Value& argument : *arguments)
      if (const Dictionary* object = argument.dictionary())
        text +=
            textAt(*object, "value").value_or(textAt(*object, "description").value_or("?")) + ' ';
  return text;
}

}  // namespace

Browser::Browser()
    : Browser([] {
        Pipes pipes;
        std::tie(pipes.commandsOut, pipes.commandsIn) = makePipe();
        std::tie(pipes.answersOut, pipes.answersIn) = makePipe();
        return pipes;
      }()) {}

Browser::Browser(Pipes pipes)
    : _process(start(pipes)),
      _commands(std::move(pipes.commandsIn)),
      _answers(std::move(pipes.answersOut)) {
  fcntl(_commands.get(), F_SETFL, O_NONBLOCK);
  pipes = Pipes();
  const Dictionary target = call("Target.createTarget", {{"url", "about:blank"}});
  const Dictionary attached =
      call("Target.attachToTarget", {{"targetId", *target.find("targetId")}, {"flatten", true}});
  _session = textAt(attached, "sessionId").value_or("");
  for (const char* domain : {"Page.enable", "Runtime.enable", "Log.enable"}) call(domain);
  resize(1280, 800);
  setColorScheme("light");
}

ChildProcess Browser::start(const Pipes& pipes) const {
  const std::string& folder = _scratch.path();
  const int errors = ::open((folder + "/errors").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  const Descriptor output(errors);
  // "env" replaces what stands in this process's environment.
  std::vector<std::string> command{
      "env", "-u", "DISPLAY", "-u", "WAYLAND_DISPLAY", "DBUS_SESSION_BUS_ADDRESS=disabled:"};
  for (const char* variable : {"HOME", "TMPDIR", "XDG_CONFIG_HOME", "XDG_CACHE_HOME"})
    command.push_back(fmt::format("{}={}", variable, folder));
  command.push_back("chromium");
  for (const char* option :
       {"--headless", "--remote-debugging-pipe", "--no-first-run", "--no-default-browser-check",
        // Its own sandbox needs rights that containers lack; it meets nothing but this lab's page.
        "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu", "--mute-audio",
        "--disable-breakpad", "--disable-crash-reporter", "--password-store=basic",
        // Nothing leaves this machine.
        "--disable-background-networking", "--disable-component-update", "--disable-sync",
        "--disable-default-apps", "--disable-extensions", "--disable-domain-reliability",
        "--disable-client-side-phishing-detection", "--metrics-recording-only", "--no-pings",
        "--disable-features=OptimizationHints,MediaRouter,Translate,DialMediaRouteProvider",
        "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE localhost, EXCLUDE 127.0.0.1",
        // The same picture wherever it is taken.
        "--force-device-scale-factor=1", "--disable-lcd-text",
        "--disable-font-subpixel-positioning", "--hide-scrollbars=false", "--lang=en-GB"})
    command.emplace_back(option);
  command.push_back("--user-data-dir=" + folder + "/profile");
  const int commands = pipes.commandsOut.get();
  const int answers = pipes.answersIn.get();
  return ChildProcess(ChildProcess::Program{.command = std::move(command),
                                            .streams = {STDIN_FILENO, output.get(), output.get()},
                                            .prepare = [commands, answers] {
                                              dup2(commands, commandNumber);
                                              dup2(answers, answerNumber);
                                            }});
}

Browser::~Browser() {
  try {
    call("Page.navigate", {{"url", "about:blank"}});  // an open stream would hold it up
    _session.clear();
    send({{"id", ++_lastCall}, {"method", "Browser.close"}});
    (void)_process.waitForExit(10s);
  } catch (const std::exception&) {
    // It has ended already; otherwise it is ended now.
  }
}

void Browser::send(const Dictionary& message) {
  const auto text = writeJSON(message);
  if (!text) throw std::runtime_error("a command that JSON cannot hold");
  std::string_view rest(text->c_str(), text->size() + 1);  // each ends with a zero
  while (!rest.empty()) {
    pollfd waiting{_commands.get(), POLLOUT, 0};
    if (poll(&waiting, 1, std::chrono::milliseconds(patience).count()) != 1)
      throw std::runtime_error("the browser takes no commands" + errors());
    const ssize_t count = ::write(_commands.get(), rest.data(), rest.size());
    if (count < 0 && errno != EAGAIN) throw std::runtime_error("the browser is gone" + errors());
    if (count > 0) rest.remove_prefix(static_cast<std::size_t>(count));
  }
}

Dictionary Browser::receive(std::chrono::steady_clock::time_point deadline) {
  std::size_t end;
  while ((end = _received.find('\0')) == std::string::npos) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd waiting{_answers.get(), POLLIN, 0};
    if (left <= 0ms || poll(&waiting, 1, static_cast<int>(left.count())) != 1)
      throw std::runtime_error("the browser does not answer" + errors());
    std::array<char, 65536> piece;
    const ssize_t count = ::read(_answers.get(), piece.data(), piece.size());
    if (count <= 0)
      throw std::runtime_error(
          "the browser is gone (is the Debian package chromium installed? scripts/setup does it)" +
          errors());
    _received.append(piece.data(), static_cast<std::size_t>(count));
  }
  const Result<Value> message = parseJSON(std::string_view(_received).substr(0, end));
  _received.erase(0, end + 1);
  if (!message || !message.value().dictionary())
    throw std::runtime_error("the browser says something that is no JSON object");
  return *message.value().dictionary();
}

Dictionary Browser::call(const std::string& method, Dictionary parameters) {
  const std::int64_t number = ++_lastCall;
  Dictionary command{{"id", number}, {"method", method}, {"params", std::move(parameters)}};
  if (!_session.empty()) command.set("sessionId", _session);
  send(command);
  const auto deadline = std::chrono::steady_clock::now() + 2 * patience;
  for (;;) {
    const Dictionary message = receive(deadline);
    if (integerAt(message, "id") != number) {
      note(message);
      continue;
    }
    if (const Dictionary* error = dictionaryAt(message, "error"))
      throw std::runtime_error(method + ": " + textAt(*error, "message").value_or("refused"));
    const Dictionary* result = dictionaryAt(message, "result");
    return result ? *result : Dictionary();
  }
}

void Browser::note(const Dictionary& event) {
  const std::string method = textAt(event, "method").value_or("");
  const Dictionary* found = dictionaryAt(event, "params");
  const Dictionary parameters = found ? *found : Dictionary();
  if (method == "Page.loadEventFired") _isLoaded = true;
  if (method == "Runtime.exceptionThrown") {
    if (const Dictionary* details = dictionaryAt(parameters, "exceptionDetails"))
      _complaints.push_back(exceptionText(*details));
  } else if (method == "Runtime.consoleAPICalled") {
    const std::string type = textAt(parameters, "type").value_or("");
    if (type == "error" || type == "warning" || type == "assert")
      _complaints.push_back(consoleText(parameters));
  } else if (method == "Log.entryAdded") {
    const Dictionary* entry = dictionaryAt(parameters, "entry");
    const std::string level = entry ? textAt(*entry, "level").value_or("") : "";
    if (level == "error" || level == "warning")
      _complaints.push_back(textAt(*entry, "text").value_or("?") + ' ' +
                            textAt(*entry, "url").value_or(""));
  }
}

void Browser::open(const std::string& url) {
  _isLoaded = false;
  const Dictionary answer = call("Page.navigate", {{"url", url}});
  if (const auto error = textAt(answer, "errorText"))
    throw std::runtime_error("cannot open " + url + ": " + *error);
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!_isLoaded) note(receive(deadline));
}

void Browser::resize(int width, int height) {
  call("Emulation.setDeviceMetricsOverride",
       {{"width", width}, {"height", height}, {"deviceScaleFactor", 1}, {"mobile", false}});
}

void Browser::setColorScheme(const std::string& scheme) {
  call("Emulation.setEmulatedMedia",
       {{"features", Array{Dictionary{{"name", "prefers-color-scheme"}, {"value", scheme}}}}});
}

Value Browser::evaluate(const std::string& expression) {
  const Dictionary answer = call("Runtime.evaluate", {{"expression", expression},
                                                      {"awaitPromise", true},
                                                      {"returnByValue", true},
                                                      {"userGesture", true}});
  if (const Dictionary* details = dictionaryAt(answer, "exceptionDetails"))
    throw std::runtime_error(expression + ": " + exceptionText(*details));
  const Dictionary* result = dictionaryAt(answer, "result");
  const Value* value = result ? result->find("value") : nullptr;
  return value ? *value : Value();
}

std::string Browser::text(const std::string& expression) {
  const Value value = evaluate(expression);
  return value.string() ? *value.string() : "";
}

double Browser::number(const std::string& expression) {
  const Value value = evaluate(expression);
  return asNumber(&value).value_or(std::nan(""));
}

bool Browser::awaits(const std::string& condition) {
  return holds(fmt::format(R"(new Promise((resolve) => {{
    const end = performance.now() + {};
    const look = () => {{
      if ({}) resolve(true);
      else if (performance.now() > end) resolve(false);
      else requestAnimationFrame(look);
    }};
    look();
  }}))",
                           std::chrono::milliseconds(patience).count(), condition));
}

void Browser::click(const std::string& selector) {
  const std::string quoted = writeJSON({{"selector", selector}}).value_or("");
  const Value place = evaluate(fmt::format(R"((() => {{
    const target = document.querySelector(({}).selector);
    if (!target) throw new Error('there is nothing to click');
    const box = target.getBoundingClientRect();
    const x = box.x + box.width / 2, y = box.y + box.height / 2;
    const hit = document.elementFromPoint(x, y);
    if (!hit || !(target.contains(hit) || hit.contains(target))) throw new Error('it is covered');
    return [x, y];
  }})())",
                                           quoted));
  const Array& point = *place.array();
  for (const char* type : {"mousePressed", "mouseReleased"})
    call("Input.dispatchMouseEvent", {{"type", type},
                                      {"x", point.at(0)},
                                      {"y", point.at(1)},
                                      {"button", "left"},
                                      {"clickCount", 1}});
}

void Browser::press(const std::string& key) {
  Dictionary event{{"key", key}};
  // Those that do something by themselves need their number too.
  const std::pair<std::string_view, int> numbers[] = {
      {"Tab", 9},   {"Enter", 13},     {"Escape", 27},  {" ", 32},          {"End", 35},
      {"Home", 36}, {"ArrowLeft", 37}, {"ArrowUp", 38}, {"ArrowRight", 39}, {"ArrowDown", 40}};
  for (const auto& [name, number] : numbers)
    if (key == name)
      event.addEntriesFrom(
          {{"windowsVirtualKeyCode", number}, {"code", key == " " ? "Space" : key}});
  if (key.size() == 1) event.set("text", key);
  if (key == "Enter") event.set("text", "\r");
  for (const char* type : {"keyDown", "keyUp"}) {
    event.set("type", type);
    call("Input.dispatchKeyEvent", event);
    event.erase("text");
  }
}

void Browser::type(std::string_view text) {
  for (const char character : text) press(std::string(1, character));
}

std::string Browser::screenshot() {
  const Dictionary answer = call("Page.captureScreenshot", {{"format", "png"}});
  const auto bytes = base64DecodeIgnoringUnknownCharacters(textAt(answer, "data").value_or(""));
  return bytes.value_or("");
}

std::string Browser::errors() const {
  const std::string text = contentOf(_scratch.path("errors"));
  return text.empty() ? "" : "; it said: " + text.substr(0, 2000);
}

}  // namespace corvid::lab
