/// \file
/// The texts that explain the program: usage, help, option help, exit codes and version.
#pragma once

void usage();
void help();
void option_help();

/// Prints the text of an exit code; one outside the table is said to be unrecognized.
void show_exit_code_description(int code);

/// Title, version and ownership through `writelog`, with `console` as its `Display`.
void show_version(int console);
