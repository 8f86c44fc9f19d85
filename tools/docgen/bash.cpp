#include <CLI/CLI.hpp>

#include "tools/docgen/manual.h"
#include "tools/mediautil/program.h"

namespace {

constexpr const char* kBegin = R"(# Completes mediautil's commands, options and values in bash.
_mediautil() {
  local word=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]} command='' options='' values='' i
  # "--option=value" arrives as three words.
  if [[ $word == = ]]; then
    option+='=' word=''
  elif [[ $option == = ]]; then
    option=${COMP_WORDS[COMP_CWORD - 2]}=
  fi
  for ((i = 1; i < COMP_CWORD; ++i)); do
    if [[ ${COMP_WORDS[i]} == -- ]]; then
      command=files
      break
    elif [[ -z $command && ${COMP_WORDS[i]} != -* ]]; then
      command=${COMP_WORDS[i]}
    fi
  done
  case $command in
)";

constexpr const char* kEnd = R"(  esac
  if [[ -n $values ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$values" -- "$word")
  elif [[ $word == -* && -n $options && $option != *= ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
  elif [[ -n $command ]]; then
    COMPREPLY=()
    compopt -o default
  fi
}
complete -F _mediautil mediautil
)";

std::string Joined(const std::vector<std::string>& words) {
  return CLI::detail::join(words, " ");
}

// The value of a flag only stands behind "=".
std::string ValueCases(CLI::App& command) {
  std::string cases;
  for (CLI::Option* option : command.get_options()) {
    const std::vector<std::string> choices = Choices(*option);
    std::vector<std::string> patterns;
    for (const std::string& name : Names(*option)) {
      patterns.push_back(name + "=");
      if (option->get_items_expected_min() > 0) {
        patterns.push_back(name);
      }
    }
    if (!choices.empty() && !patterns.empty()) {
      cases += "        " + CLI::detail::join(patterns, " | ") + ") values='" + Joined(choices) + "' ;;\n";
    }
  }
  return cases.empty() ? "" : "      case $option in\n" + cases + "      esac\n";
}

}  // namespace

std::string BashCompletion(CLI::App& app) {
  std::string script = kBegin;
  for (CLI::App* command : Commands(app)) {
    script += "    " + command->get_name() + ")\n      options='" + Joined(OptionNames(*command)) + "'\n" +
              ValueCases(*command) + "      ;;\n";
  }
  script += "    '')\n      options='" + Joined(OptionNames(app)) + "'\n      [[ $word == -* ]] || values='" +
            Joined(CommandNames(app)) + "'\n      ;;\n";
  return script + kEnd;
}
