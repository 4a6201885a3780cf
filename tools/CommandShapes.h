// What a program over CLI11 tells shells of its commands. As heavy as base/CommandLine.h: for the
// one source of a program that reads its command line.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "base/CommandLine.h"
#include "tools/Arguments.h"
#include "tools/Completion.h"

namespace corvid::tools {

inline CommandShape shapeOf(const CLI::App& command) {
  CommandShape shape{.name = command.get_name()};
  const std::string help = command.get_description();
  shape.help = help.substr(0, help.find('\n'));
  eachOption(command, [&](std::vector<std::string> names, bool takesValue, std::string text) {
    shape.options.push_back({std::move(names), takesValue, std::move(text)});
  });
  for (const CLI::App* const child : command.get_subcommands({}))
    if (!child->get_group().empty()) shape.commands.push_back(shapeOf(*child));
  return shape;
}

// Prints the completion script of a program for a shell; an InputError for a shell that is none.
inline int printCompletion(const std::string& shell, const CLI::App& program) {
  const auto script = completionFor(shell, shapeOf(program));
  if (!script) throw InputError("a shell is bash, zsh or fish, not " + shell);
  std::fputs(script->c_str(), stdout);
  return 0;
}

}  // namespace corvid::tools
