// What the command lines of all programs have in common, over CLI11. That is heavy, so only the one
// source of a program that reads its command line includes this.
#pragma once

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/Reading.h"

namespace corvid {

// Exit status for a command line that cannot be used, as in <sysexits.h>.
inline constexpr int exitUsage = 64;

// Help that starts with the usage.
struct UsageFirst : CLI::Formatter {
  UsageFirst() { label("Usage", "usage"); }
  std::string make_help(const CLI::App* app, std::string name,
                        CLI::AppFormatMode mode) const override {
    return make_usage(app, name) + '\n' + make_description(app) + make_positionals(app) +
           make_groups(app, mode) + make_subcommands(app, mode) + '\n' + make_footer(app);
  }
};

// What a program and each of its commands have: of several options of one kind the last counts,
// flags take no value, help and version end the reading wherever they stand. Called before anything
// is added.
inline void addCommonOptions(CLI::App& command, const std::string& version) {
  command.formatter(std::make_shared<UsageFirst>());
  command.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  command.option_defaults()->disable_flag_override();
  command.set_help_flag();
  command
      .add_flag_callback(
          "-h,--help", [] { throw CLI::CallForHelp(); }, "Print this text and exit")
      ->trigger_on_parse();
  command
      .add_flag_callback(
          "--version", [version] { throw CLI::CallForVersion(version, 0); },
          "Print the version and exit")
      ->trigger_on_parse();
}

// A whole decimal number within bounds.
inline CLI::Validator wholeNumber(std::int64_t least, std::int64_t most) {
  return {[=](std::string& text) -> std::string {
            const auto number = numberFrom<std::int64_t>(text);
            if (!number || *number < least || *number > most)
              return fmt::format("takes a whole number from {} to {}, not \"{}\"", least, most,
                                 text);
            text = std::to_string(*number);  // the library would read octal and hexadecimal ones
            return {};
          },
          ""};
}

template <class Number>
CLI::Option* addNumber(CLI::App& command, const std::string& name, Number& target,
                       std::int64_t least, std::int64_t most, const std::string& help) {
  return command.add_option(name, target, help)
      ->type_name("N")
      ->transform(wholeNumber(least, most));
}

inline CLI::Option* addFolder(CLI::App& command, const std::string& name, std::string& target,
                              const std::string& help) {
  return command.add_option(name, target, help)
      ->type_name("DIR")
      ->check(CLI::Validator(
          [](const std::string& text) {
            return std::string(text.empty() ? "takes a folder, not an empty text" : "");
          },
          ""));
}

// The words of a command that are no options, as they are: left to itself the library would split
// "[a,b]" and leave "{}" out. It takes all words of an option of which it wants many, and does not
// count them, since the last counts of several.
inline CLI::Option* addWords(CLI::App& command, const std::string& name,
                             std::vector<std::string>& target, const std::string& help) {
  constexpr int many = CLI::detail::expected_max_vector_size;
  const auto take = [&target](const CLI::results_t& words) {
    target = words;
    return true;
  };
  return command.add_option(name, take, help)->type_name("")->expected(many, many);
}

// Calls `option(names, takesValue, help)` for each option of a command, texts of one line each.
template <class Option>
void eachOption(const CLI::App& command, Option option) {
  const auto firstLine = [](const std::string& text) { return text.substr(0, text.find('\n')); };
  for (const CLI::Option* const one : command.get_options()) {
    std::vector<std::string> names;
    for (const std::string& name : one->get_lnames()) names.push_back("--" + name);
    for (const std::string& name : one->get_snames()) names.push_back("-" + name);
    if (!names.empty())
      option(std::move(names), one->get_items_expected_max() > 0,
             firstLine(one->get_description()));
  }
}

// The way to the command that was read: "corvidctl dashboard send".
inline std::string commandPath(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return app.get_name() + (chosen.empty() ? "" : ' ' + commandPath(*chosen.front()));
}

// What is wrong with a command line, in one line. What nobody expected comes first: it may be a
// misspelt option whose absence the library complains of.
inline std::string complaint(const CLI::App& app, const CLI::ParseError& error) {
  std::vector<std::string> extras = app.remaining(true);
  std::erase(extras, "--");
  if (extras.empty()) {
    // Two of the library's texts would not tell much.
    const std::string text = error.what();
    const auto name = [&](const char* end) { return text.substr(0, text.find(end)); };
    if (text.find(": 1 required ") != text.npos) return name(":") + " lacks its value";
    if (text.ends_with("flag override")) return "--" + name(" ") + " takes no value";
    return text;
  }
  const std::string name = extras.front().substr(0, extras.front().find('='));
  if (name.starts_with('-')) {
    const CLI::Option* known = app.get_option_no_throw(name);
    if (!known) return "unknown option " + name;
    return fmt::format("{0} goes before the command: {1} {0} {2} {3} ...", name, app.get_name(),
                       known->get_type_name(), app.get_subcommands().front()->get_name());
  }
  const CLI::App* command = &app;
  while (!command->get_subcommands().empty()) command = command->get_subcommands().front();
  const bool lacksCommand = !command->get_subcommands({}).empty();
  return (lacksCommand ? "there is no command " : "unexpected ") + extras.front();
}

// "help", "help COMMAND" and "COMMAND help" become --help.
inline void rewriteHelp(const CLI::App& app, std::vector<std::string>& arguments) {
  const auto help = std::ranges::find(arguments, "help");
  if (help == arguments.end() || (help != arguments.begin() && help + 1 != arguments.end())) return;
  const CLI::App* command = &app;
  for (auto word = arguments.begin(); word != arguments.end(); ++word) {
    if (word == help) continue;
    const auto named =
        command->get_subcommands([&](const CLI::App* one) { return one->check_name(*word); });
    if (named.empty()) return;
    command = named.front();
  }
  arguments.erase(help);
  arguments.push_back("--help");
}

// Reads the arguments behind the program's name and runs the callbacks of what was read. Gives the
// exit status of a program that is to end now: it has printed help or version, or, on standard
// error, one line that says what is wrong.
inline std::optional<int> readCommandLine(CLI::App& app, std::vector<std::string> arguments) {
  rewriteHelp(app, arguments);
  // "--name=" names an empty value, which the library would look for in the next argument.
  for (auto at = arguments.begin(); at != arguments.end() && *at != "--"; ++at)
    if (at->starts_with("--") && at->find('=') == at->size() - 1) {
      at->pop_back();
      at = arguments.insert(at + 1, "");
    }
  try {
    std::ranges::reverse(arguments);  // as the library takes them
    app.parse(arguments);
    return std::nullopt;
  } catch (const CLI::Success& wish) {
    return app.exit(wish);
  } catch (const CLI::ParseError& error) {
    fmt::print(stderr, "{}: {} ({} --help says more)\n", app.get_name(), complaint(app, error),
               commandPath(app));
    return exitUsage;
  }
}

}  // namespace corvid
