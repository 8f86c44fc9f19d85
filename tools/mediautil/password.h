// Where a password comes from; never from the command line, which other users can read.
#pragma once

#include <string>

// Reads it from the first line of file, "-" for stdin; without one from the environment, else from the terminal after a
// prompt, without echo. kDone, or prints the error.
int ReadPassword(const std::string& file, const std::string& prompt, std::string& password);
