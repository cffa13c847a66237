/// \file
/// The program's option table, as the program itself hands it to getopt.
#pragma once

#include <map>
#include <string>

/// The text that getopt is given.
std::string option_string();

/// Each option's letter, and whether it takes an argument.
std::map<char, bool> option_table();
