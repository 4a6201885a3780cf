// Completion of a program's command line in shells, made of its commands.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvid::tools {

struct OptionShape {
  std::vector<std::string> names;  // with their dashes
  bool takesValue = false;
  std::string help{};  // one line
};

// A program, or one of its commands.
struct CommandShape {
  std::string name;
  std::string help{};  // one line
  std::vector<OptionShape> options{};
  std::vector<CommandShape> commands{};
};

// The script for "bash", "zsh" or "fish"; nothing for another shell.
std::optional<std::string> completionFor(std::string_view shell, const CommandShape& program);

}  // namespace corvid::tools
