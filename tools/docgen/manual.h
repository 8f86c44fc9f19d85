// The program's manual, made from its commands and options.
#pragma once

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

// The names of the option on the command line, short ones first; empty for a positional.
std::vector<std::string> Names(const CLI::Option& option);

// The values that the option takes; empty when it takes others as well.
std::vector<std::string> Choices(CLI::Option& option);

// A script that completes command lines of the program in bash.
std::string BashCompletion(CLI::App& app);

// The part of the man page, in roff, that tells of the commands and of the options they share.
std::string ManCommands(CLI::App& app);
