// The program as the parser knows it: its commands and their options, for running it and for writing its manual.
#pragma once

#include "tools/mediautil/args.h"

struct LogArgs {
  bool quiet = false;
  int verbose = 0;
};

// Adds all commands and options to app, and puts what a command line asks for into action and log.
void DefineProgram(CLI::App& app, Action& action, LogArgs& log);

// The commands in the order of the program, and their names.
std::vector<CLI::App*> Commands(CLI::App& app);
std::vector<std::string> CommandNames(CLI::App& app);

// The long names of the options of a command or of the program.
std::vector<std::string> OptionNames(const CLI::App& command);
