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
    if (c == '\'') result += '\\';
    result += c;
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
    cases += "      '*:file:_files' ;;\n";
  }
  return fmt::format(
      "#compdef kyr\n"
      "# Completion of kyr for zsh, made by: kyr completion zsh\n"
      "_kyr() {{\n"
      "  local -a commands\n"
      "  commands=(\n{}  )\n"
      "  if (( CURRENT == 2 )); then\n"
      "    _describe command commands\n"
      "    return\n"
      "  fi\n"
      "  local command=$words[2]\n"
      "  shift words\n"
      "  (( CURRENT-- ))\n"
      "  case $command in\n{}"
      "  esac\n"
      "}}\n"
      "if [[ $funcstack[1] == _kyr ]]; then\n"
      "  _kyr \"$@\"\n"
      "else\n"
      "  compdef _kyr kyr\n"
      "fi\n",
      commands, cases);
}

}  // namespace kyr::tool
