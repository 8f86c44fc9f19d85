// The program as the parser knows it: its commands and their options, for running it and for writing its manual.
#pragma once

#include "tools/mediautil/args.h"

struct LogArgs {
  bool quiet = false;
  int verbose = 0;
};

// Adds all commands and options to app, and puts what a command line asks for into action and log.
void DefineProgram(CLI::App& app, Action& action, LogArgs& log);
