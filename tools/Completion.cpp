#include "tools/Completion.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <iterator>

namespace corvid::tools {

namespace {

// In single quotes, for all three shells.
std::string quoted(std::string_view text) {
  std::string result = "'";
  for (const char c : text) {
    if (c == '\'')
      result += "'\\''";
    else
      result += c;
  }
  return result + "'";
}

// A command and the words that lead to it behind the program's name, each with a blank before it.
using Visit = std::function<void(const std::string& path, const CommandShape& command)>;

void visit(const CommandShape& command, const std::string& path, const Visit& each) {
  each(path, command);
  for (const CommandShape& child : command.commands) visit(child, path + " " + child.name, each);
}

// Options that take a value, so that the next word is no command.
std::string valueOptions(const CommandShape& program) {
  std::vector<std::string> names;
  visit(program, "", [&](const std::string&, const CommandShape& command) {
    for (const OptionShape& option : command.options)
      if (option.takesValue) names.insert(names.end(), option.names.begin(), option.names.end());
  });
  std::ranges::sort(names);
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return fmt::format("{}", fmt::join(names, "|"));
}

// Finds the command that the words before the last one name. For bash and zsh, whose words begin
// at `first`.
std::string walk(const CommandShape& program, std::string_view words, std::string_view last) {
  std::string paths;
  visit(program, "", [&](const std::string& path, const CommandShape&) {
    if (!path.empty()) paths += (paths.empty() ? "" : "|") + quoted(path);
  });
  return fmt::format(
      "  local path='' at\n"
      "  for ((at = {2}; at < {1}; at++)); do\n"
      "    case ${{{0}[at]}} in\n"
      "      {3}) ((at++)) ;;\n"
      "      -*) ;;\n"
      "      *) case \"$path ${{{0}[at]}}\" in {4}) path+=\" ${{{0}[at]}}\" ;; esac ;;\n"
      "    esac\n"
      "  done\n",
      words, last, words == "words" ? 2 : 1, valueOptions(program), paths);
}

std::string bashScript(const CommandShape& program) {
  std::string text = fmt::format(
      "# Completion of {0} for bash.\n_complete_{0}() {{\n{1}  local known=''\n  case $path in\n",
      program.name, walk(program, "COMP_WORDS", "COMP_CWORD"));
  visit(program, "", [&](const std::string& path, const CommandShape& command) {
    std::string known;
    for (const CommandShape& child : command.commands) known += child.name + " ";
    for (const OptionShape& option : command.options)
      for (const std::string& name : option.names) known += name + " ";
    text += fmt::format("    {}) known={} ;;\n", quoted(path), quoted(known));
  });
  return text +
         fmt::format(
             "  esac\n"
             "  mapfile -t COMPREPLY < <(compgen -W \"$known\" -- \"${{COMP_WORDS[COMP_CWORD]}}\")\n"
             "}}\ncomplete -o default -F _complete_{0} {0}\n",
             program.name);
}

std::string zshScript(const CommandShape& program) {
  std::string text = fmt::format(
      "#compdef {0}\n# Completion of {0} for zsh.\n{1}  local -a known\n  case $path in\n",
      program.name, walk(program, "words", "CURRENT"));
  // Outside a function `local` is refused.
  text.insert(text.find("  local path"), fmt::format("_complete_{}() {{\n", program.name));
  const auto described = [](std::string_view name, std::string_view help) {
    std::string escaped;
    for (const char c : name) escaped += c == ':' ? "\\:" : std::string(1, c);
    return quoted(escaped + ":" + std::string(help));
  };
  visit(program, "", [&](const std::string& path, const CommandShape& command) {
    std::string known;
    for (const CommandShape& child : command.commands)
      known += " " + described(child.name, child.help);
    for (const OptionShape& option : command.options)
      for (const std::string& name : option.names) known += " " + described(name, option.help);
    text += fmt::format("    {}) known=({} ) ;;\n", quoted(path), known);
  });
  return text +
         fmt::format("  esac\n  _describe -o 'word' known || _files\n}}\n_complete_{} \"$@\"\n",
                     program.name);
}

std::string fishScript(const CommandShape& program) {
  std::string text = fmt::format("# Completion of {} for fish.\n", program.name);
  visit(program, "", [&](const std::string& path, const CommandShape& command) {
    // The command whose words have been given, and none of its own commands yet.
    std::string condition;
    for (std::size_t at = 0; at < path.size();) {
      const std::size_t end = std::min(path.find(' ', at + 1), path.size());
      condition +=
          fmt::format("{}__fish_seen_subcommand_from {}", condition.empty() ? "" : "; and ",
                      path.substr(at + 1, end - at - 1));
      at = end;
    }
    std::string deeper;
    for (const CommandShape& child : command.commands) deeper += " " + child.name;
    if (!deeper.empty())
      condition += fmt::format("{}not __fish_seen_subcommand_from{}",
                               condition.empty() ? "" : "; and ", deeper);
    const std::string when = condition.empty() ? "" : " -n " + quoted(condition);
    for (const CommandShape& child : command.commands)
      text += fmt::format("complete -c {}{} -f -a {} -d {}\n", program.name, when, child.name,
                          quoted(child.help));
    for (const OptionShape& option : command.options) {
      std::string names;
      for (const std::string& name : option.names)
        names += name.starts_with("--") ? " -l " + name.substr(2) : " -s " + name.substr(1);
      text += fmt::format("complete -c {}{}{}{} -d {}\n", program.name, when, names,
                          option.takesValue ? " -r" : "", quoted(option.help));
    }
  });
  return text;
}

}  // namespace

std::optional<std::string> completionFor(std::string_view shell, const CommandShape& program) {
  if (shell == "bash") return bashScript(program);
  if (shell == "zsh") return zshScript(program);
  if (shell == "fish") return fishScript(program);
  return std::nullopt;
}

}  // namespace corvid::tools
