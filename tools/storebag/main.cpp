// corvid-storebag: writes, checks, signs and publishes the configuration of corvidd's devices.
#include <cstdio>
#include <exception>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "base/CommandLine.h"
#include "platform/data/Crypto.h"
#include "tools/Arguments.h"
#include "tools/CommandShapes.h"
#include "tools/storebag/Commands.h"
#include "tools/storebag/PolicyCommands.h"

namespace corvid::storebag {

namespace {

constexpr const char* version = "corvid-storebag " CORVID_VERSION;

constexpr const char* footer =
    "corvid-storebag COMMAND --help, or corvid-storebag help COMMAND, lists the options of a\n"
    "command.\n"
    "\n"
    "Exit status: 0 done, 1 it did not work or something is wrong (standard error says what),\n"
    "64 wrong usage; of diff 1 where something changes, 2 where it did not work.";

// The path of a file.
CLI::Option* addFile(CLI::App& command, const std::string& name, std::string& target,
                     const std::string& help) {
  return command.add_option(name, target, help)
      ->type_name(name.starts_with('-') ? "FILE" : "")
      ->check(CLI::Validator(
          [](const std::string& text) {
            return std::string(text.empty() ? "takes a file, not an empty text" : "");
          },
          ""));
}

// An option that may stand several times, each time with one value.
CLI::Option* addEach(CLI::App& command, const std::string& name, std::vector<std::string>& target,
                     const char* type, const std::string& help) {
  const auto take = [&target](const CLI::results_t& values) {  // as they are, like addWords
    target = values;
    return true;
  };
  return command.add_option(name, take, help)
      ->type_name(type)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

void addLocation(CLI::App& command, Location& location) {
  addFile(command, "FILE|URL", location.name, "The storebag: a file, or an https URL")->required();
  addFile(command, "--ca-file", location.caFile,
          "Certificates to trust for a URL instead of the system's, in PEM form");
}

void addJSON(CLI::App& command, bool& target) {
  command.add_flag("--json", target, "Print JSON, for programs");
}

// Commands of the line and what becomes of the one that is named.
class Program {
 public:
  int run(std::vector<std::string> arguments);

 private:
  CLI::App& addCommand(const std::string& name, const std::string& help, std::function<int()> run);
  void addKeygen();
  void addSign();
  void addVerify();
  void addShow();
  void addLint();
  void addKeys();
  void addExplain();
  void addTest();
  void addDiff();
  void addCompletion();

  CLI::App _app{
      "Writes, checks and signs storebags, the configuration that devices fetch. Needs no daemon;\n"
      "what it says of a storebag is what a device does with it.",
      "corvid-storebag"};
  int _status = 0;

  KeygenOptions _keygen;
  SignOptions _sign;
  VerifyOptions _verify;
  ShowOptions _show;
  LintOptions _lint;
  bool _keysAsJSON = false;
  ExplainOptions _explain;
  TestOptions _test;
  DiffOptions _diff;
  std::string _shell;
};

CLI::App& Program::addCommand(const std::string& name, const std::string& help,
                              std::function<int()> run) {
  CLI::App& command = *_app.add_subcommand(name, help);
  addCommonOptions(command, version);
  command.callback([this, run = std::move(run)] {
    try {
      _status = run();
    } catch (const tools::InputError& error) {
      throw CLI::ParseError(error.what(), exitUsage);
    }
  });
  return command;
}

void Program::addKeygen() {
  CLI::App& keygen =
      addCommand("keygen", "Make a key to sign with: DIR/private.pem and DIR/publicKey.der",
                 [this] { return runKeygenCommand(_keygen); });
  addFolder(keygen, "DIR", _keygen.folder, "Folder for the key, without one yet")->required();
  addNumber(keygen, "--bits", _keygen.bits, RSAPublicKey::leastBits, 16'384, "Its length (3072)");
}

void Program::addSign() {
  CLI::App& sign = addCommand("sign", "Sign a storebag with one key or several",
                              [this] { return runSignCommand(_sign); });
  addEach(sign, "--key", _sign.keys, "PEM",
          "Private key, a PEM file or a URI such as pkcs11:object=signing; several sign in this\n"
          "order")
      ->required();
  addFile(sign, "IN", _sign.source,
          "The storebag: a property list, JSON, or an envelope to be signed anew")
      ->required();
  addFile(sign, "-o,--output", _sign.output, "File for the envelope, replaced in one step")
      ->required();
  sign.add_flag("--force", _sign.force, "Sign although lint finds something WRONG");
}

void Program::addVerify() {
  CLI::App& verify = addCommand("verify", "Say whether devices with a public key take a storebag",
                                [this] { return runVerifyCommand(_verify); });
  addEach(verify, "--public-key", _verify.publicKeys, "DER",
          "Public key of the devices; one of several is enough")
      ->required();
  verify.add_flag("--require-sha256", _verify.requiresSHA256,
                  "As devices with RequireSHA256Signature do");
  addLocation(verify, _verify.source);
  addJSON(verify, _verify.asJSON);
}

void Program::addShow() {
  CLI::App& show = addCommand("show", "Print the content of a storebag, signed or not",
                              [this] { return runShowCommand(_show); });
  addLocation(show, _show.source);
  show.add_flag("--json", _show.asJSON, "Print JSON instead of a property list");
}

void Program::addLint() {
  CLI::App& lint =
      addCommand("lint", "Find what is wrong with a storebag, and what keeps devices silent",
                 [this] { return runLintCommand(_lint); });
  addFile(lint, "FILE", _lint.source, "The storebag, signed or not")->required();
  addJSON(lint, _lint.asJSON);
  lint.footer("Keys, of which corvid-storebag keys says more:\n" + keysForHelp() +
              "\n"
              "Exit status: 0 nothing is wrong, 1 something is.");
}

void Program::addKeys() {
  CLI::App& keys = addCommand("keys", "List every key that a storebag may have",
                              [this] { return runKeysCommand(_keysAsJSON); });
  addJSON(keys, _keysAsJSON);
}

void Program::addExplain() {
  CLI::App& explain = addCommand("explain", "Say what a client on a device gets of a storebag",
                                 [this] { return runExplainCommand(_explain); });
  addFile(explain, "FILE", _explain.source, "The storebag")->required();
  explain
      .add_option("--client-type", _explain.clientType,
                  "The client's type: a number, or its tag or storebag name")
      ->required()
      ->type_name("TYPE");
  explain
      .add_option("--facts", _explain.facts, "The device and the client, a JSON object or @FILE")
      ->type_name("JSON");
  explain
      .add_option(
          "--event", _explain.event,
          "Say what becomes of {\"category\":…,\"type\":…,\"flag\":…,\"payload\":…}, or @FILE")
      ->type_name("JSON");
  addJSON(explain, _explain.asJSON);
}

void Program::addTest() {
  CLI::App& test = addCommand("test", "Test whether a storebag does what its authors expect",
                              [this] { return runTestCommand(_test); });
  addFile(test, "FILE", _test.source, "The storebag")->required();
  addFile(test, "TESTS", _test.tests, "Facts and events with what is expected, in JSON")
      ->required();
  addFile(test, "--junit", _test.junitFile, "Write what came of them as JUnit's XML, too");
  addJSON(test, _test.asJSON);
}

void Program::addDiff() {
  CLI::App& diff = addCommand("diff", "Say what a storebag changes, and for whom",
                              [this] { return runDiffCommand(_diff); });
  addFile(diff, "OLD", _diff.oldSource, "The storebag that is published")->required();
  addFile(diff, "NEW", _diff.newSource, "The one that shall be")->required();
  addEach(diff, "--facts", _diff.facts, "JSON",
          "A device and a client to look at as well, with its \"clientType\", or @FILE; several");
  addJSON(diff, _diff.asJSON);
}

void Program::addCompletion() {
  CLI::App& completion =
      addCommand("completion", "Print the completion script of a shell: bash, zsh or fish",
                 [this] { return tools::printCompletion(_shell, _app); });
  completion.add_option("SHELL", _shell, "bash, zsh or fish")->required()->type_name("");
}

int Program::run(std::vector<std::string> arguments) {
  addCommonOptions(_app, version);
  _app.require_subcommand(1);
  addKeygen();
  addSign();
  addVerify();
  addShow();
  addLint();
  addKeys();
  addExplain();
  addTest();
  addDiff();
  addCompletion();
  _app.footer(footer);  // last: commands would have it too
  return readCommandLine(_app, std::move(arguments)).value_or(_status);
}

}  // namespace

}  // namespace corvid::storebag

int main(int argc, char** argv) {
  try {
    return corvid::storebag::Program().run({argv + (argc > 0), argv + argc});
  } catch (const std::exception& error) {
    std::fprintf(stderr, "corvid-storebag: %s\n", error.what());
    return 1;
  }
}
