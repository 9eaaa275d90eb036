#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <sstream>
#include <string>

#include "cli/CommandLine.h"
#include "cli/Errors.h"
#include "cli/Output.h"
#include "cli/Settings.h"
#include "commands/Commands.h"

namespace kyr::tool {

namespace {

// "NAME=VALUE" for every option of the library that has a few values.
std::string settingWords() {
  std::string words;
  for (const Setting& setting : currentSettings()) {
    std::istringstream values(setting.values);
    for (std::string value; values >> value;) words += setting.name + "=" + value + " ";
  }
  return words;
}

std::string optionNames(const CLI::App& command) {
  std::string names;
  for (const CLI::Option* option : optionsOf(command)) {
    for (const std::string& name : option->get_lnames()) names += "--" + name + " ";
  }
  return names;
}

// Cases for the word before the cursor, if it is an option with a value.
std::string valueCases(const CLI::App& command) {
  std::string cases;
  for (const CLI::Option* option : optionsOf(command)) {
    if (!takesValue(*option)) continue;
    const std::string values = valuesOf(*option);
    for (const std::string& name : option->get_lnames()) {
      cases += fmt::format("        {}:--{}) words='{}'; isValue=1 ;;\n", command.get_name(), name,
                           values);
    }
  }
  return cases;
}

int printCompletion(const CLI::App& app, const std::string& shell) {
  const auto script = shell == "bash"   ? bashCompletion
                      : shell == "zsh"  ? zshCompletion
                      : shell == "fish" ? fishCompletion
                                        : nullptr;
  if (script == nullptr) {
    throw UsageError(
        fmt::format("there is no completion for {}, only for bash, zsh and fish", shell));
  }
  Output out;
  out.print("{}", script(app));
  out.flush();
  return 0;
}

// Words in braces stand for texts that come from the command line.
constexpr const char* kBashScript =
    R"bash(# Completion of kyr for bash, made by: kyr completion bash
_kyr() {{
    # The words as they stand on the line, which bash splits at "=".
    local line=() word joins='' command='' words='' isValue='' i
    for word in "${{COMP_WORDS[@]:0:COMP_CWORD+1}}"; do
        if [[ ${{#line[@]}} -gt 1 && ( $word == = || -n $joins ) ]]; then
            line[-1]+=$word
        else
            line+=("$word")
        fi
        joins=''
        [[ $word == = ]] && joins=1
    done
    local current="${{line[-1]}}" option="${{line[-2]}}" prefix=''
    if [[ $current == --*=* ]]; then
        option="${{current%%=*}}"
        prefix="$option="
    fi
    COMPREPLY=()
    for ((i = 1; i < ${{#line[@]}} - 1; i++)); do
        case "${{line[i]}}" in
            --trace) i=$((i + 1)) ;;
            -*) ;;
            *) command="${{line[i]}}"; break ;;
        esac
    done
    if [[ $option == --trace ]]; then
        return
    fi
    case "$command:$option" in
{values}    esac
    if [[ $option == --set && ${{current#"$prefix"}} == *=* ]]; then
        words='{settings}'
    fi
    if [[ -n $isValue ]]; then
        if [[ -z $words ]]; then
            return
        fi
        words=" $words"
        words="${{words// / $prefix}}"
        words="${{words% "$prefix"}}"
    elif [[ -z $command ]]; then
        words='{names}{options}'
    elif [[ $current == -* ]]; then
        case "$command" in
{commands}        esac
    elif [[ $command == completion ]]; then
        words='bash zsh fish'
    elif [[ $command == help ]]; then
        words='{names}'
    fi
    COMPREPLY=($(compgen -W "$words" -- "$current"))
    [[ ${{COMPREPLY[0]}} == *= ]] && compopt -o nospace 2>/dev/null
    if [[ $current == *=* && $COMP_WORDBREAKS == *=* ]]; then
        COMPREPLY=("${{COMPREPLY[@]#"${{current%=*}}="}}")
    fi
}}
# Where this offers nothing, bash offers files.
complete -o default -F _kyr kyr
)bash";

}  // namespace

// "parquet|arrow|csv" names all values. Words in capitals stand for other texts.
std::string valuesOf(const CLI::Option& option) {
  if (option.check_lname("compression")) return writableCodecs();
  std::string values;
  if (option.check_lname("set")) {
    for (const Setting& setting : currentSettings()) values += setting.name + "= ";
    return values;
  }
  const std::string type = option.get_type_name();
  for (std::size_t begin = 0; begin <= type.size();) {
    const std::size_t end = std::min(type.find('|', begin), type.size());
    const std::string word = type.substr(begin, end - begin);
    if (word.find_first_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ\"'") == std::string::npos)
      values += word + " ";
    begin = end + 1;
  }
  return values;
}

std::string bashCompletion(const CLI::App& app) {
  std::string names;
  std::string options;
  std::string values;
  for (const CLI::App* command : commandsOf(app)) {
    names += command->get_name() + " ";
    options += fmt::format("        {}) words='{}{}' ;;\n", command->get_name(),
                           optionNames(*command), "--trace ");
    values += valueCases(*command);
  }
  return fmt::format(kBashScript, fmt::arg("names", names), fmt::arg("options", optionNames(app)),
                     fmt::arg("values", values), fmt::arg("commands", options),
                     fmt::arg("settings", settingWords()));
}

void addCompletionCommand(CLI::App& app, Action& action) {
  CLI::App* command = app.add_subcommand("completion", "Print the completion script for a shell");
  const auto shell = std::make_shared<std::string>("bash");
  command->add_option("SHELL", *shell, "bash (unless given), zsh or fish")->type_name("");
  command->footer(R"help(
Examples:
  source <(kyr completion bash)
  mkdir -p ~/.local/share/bash-completion/completions
  kyr completion bash > ~/.local/share/bash-completion/completions/kyr
  mkdir -p ~/.config/fish/completions
  kyr completion fish > ~/.config/fish/completions/kyr.fish
  mkdir -p ~/.zfunc && kyr completion zsh > ~/.zfunc/_kyr)help");
  command->callback(
      [&app, shell, &action] { action = [&app, shell] { return printCompletion(app, *shell); }; });
}

}  // namespace kyr::tool
