#include <fmt/format.h>

#include <sstream>
#include <string>

#include "cli/CommandLine.h"

namespace kyr::tool {

namespace {

// A text in single quotation marks, for every shell.
std::string inSingleQuotes(const std::string& text) {
  std::string result = "'";
  for (const char c : text) {
    result += c == '\'' ? "'\\''" : std::string(1, c);
  }
  return result + "'";
}

// The first part of a sentence, without the letters that have a meaning for zsh.
std::string shortMeaning(const std::string& meaning) {
  std::string text = meaning.substr(0, meaning.find_first_of(";:\n"));
  for (char& c : text) {
    if (c == '[' || c == ']' || c == '\'' || c == '\\') c = ' ';
  }
  return text;
}

std::string fishOption(const CLI::Option& option, const std::string& condition) {
  std::string line = "complete -c kyr" + condition;
  for (const std::string& name : option.get_snames()) line += " -s " + name;
  for (const std::string& name : option.get_lnames()) line += " -l " + name;
  const std::string values = valuesOf(option);
  if (takesValue(option)) line += values.empty() ? " -r" : " -x -a " + inSingleQuotes(values);
  return line + " -d " + inSingleQuotes(shortMeaning(option.get_description())) + "\n";
}

std::string zshOption(const CLI::Option& option) {
  std::string names;
  for (const std::string& name : option.get_snames()) names += " -" + name;
  for (const std::string& name : option.get_lnames()) names += " --" + name;
  std::string lines;
  std::istringstream all(names);
  for (std::string name; all >> name;) {
    const bool isLong = name.size() > 2;
    std::string completed = fmt::format("*{}{}[{}]", name, takesValue(option) && isLong ? "=" : "",
                                        shortMeaning(option.get_description()));
    if (takesValue(option)) {
      const std::string values = valuesOf(option);
      completed += ":value:" + (values.empty() ? std::string("_files") : "(" + values + ")");
    }
    lines += "      " + inSingleQuotes(completed) + " \\\n";
  }
  return lines;
}

// The words that a command takes in place of a file; empty for other commands.
std::string wordsOf(const CLI::App& app, const CLI::App& command) {
  if (command.get_name() == "completion") return "bash zsh fish";
  std::string names;
  if (command.get_name() != "help") return names;
  for (const CLI::App* each : commandsOf(app)) names += each->get_name() + " ";
  return names;
}

}  // namespace

std::string fishCompletion(const CLI::App& app) {
  std::string script = "# Completion of kyr for fish, made by: kyr completion fish\n";
  for (const CLI::Option* option : optionsOf(app)) {
    script += fishOption(*option, " -n __fish_use_subcommand");
  }
  for (const CLI::App* command : commandsOf(app)) {
    const std::string& name = command->get_name();
    script += fmt::format("complete -c kyr -n __fish_use_subcommand -f -a {} -d {}\n", name,
                          inSingleQuotes(command->get_description()));
    const std::string condition = fmt::format(" -n '__fish_seen_subcommand_from {}'", name);
    for (const CLI::Option* option : optionsOf(*command)) script += fishOption(*option, condition);
    if (const std::string words = wordsOf(app, *command); !words.empty()) {
      script += "complete -c kyr" + condition + " -f -a " + inSingleQuotes(words) + "\n";
    }
  }
  return script;
}

std::string zshCompletion(const CLI::App& app) {
  std::string commands;
  std::string cases;
  for (const CLI::App* command : commandsOf(app)) {
    const std::string& name = command->get_name();
    commands += "    " + inSingleQuotes(name + ":" + command->get_description()) + "\n";
    cases += fmt::format("    {})\n      _arguments \\\n", name);
    for (const CLI::Option* option : optionsOf(*command)) cases += zshOption(*option);
    cases += wordsOf(app, *command).empty()
                 ? "      '*:file:_files' ;;\n"
                 : fmt::format("      '1:word:({})' ;;\n", wordsOf(app, *command));
  }
  std::string options;
  for (const CLI::Option* option : optionsOf(app)) options += zshOption(*option);
  return fmt::format(
      "#compdef kyr\n"
      "# Completion of kyr for zsh, made by: kyr completion zsh\n"
      "_kyr() {{\n"
      "  local context state state_descr line\n"
      "  local -A opt_args\n"
      "  local -a commands\n"
      "  commands=(\n{}  )\n"
      "  _arguments -C \\\n{}"
      "      '1:command:->command' \\\n"
      "      '*::argument:->argument'\n"
      "  if [[ $state == command ]]; then\n"
      "    _describe command commands\n"
      "    return\n"
      "  fi\n"
      "  [[ $state == argument ]] || return\n"
      "  case $words[1] in\n{}"
      "  esac\n"
      "}}\n"
      "if [[ $funcstack[1] == _kyr ]]; then\n"
      "  _kyr \"$@\"\n"
      "else\n"
      "  compdef _kyr kyr\n"
      "fi\n",
      commands, options, cases);
}

}  // namespace kyr::tool
