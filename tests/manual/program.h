/// \file
/// Runs programs for their output.
#pragma once

#include <string>
#include <vector>

struct ProgramOutput {
    int code = -1;     ///< exit code, -1 when it did not end by itself
    std::string text;  ///< standard output and standard error
};

struct ProgramSurroundings {
    std::string directory{};                 ///< where it runs; empty: here
    std::vector<std::string> environment{};  ///< further "NAME=VALUE"
    bool as_ordinary_user = false;           ///< only root can bring that about
};

/// Runs a program, looked up in PATH, to its end.
ProgramOutput run_program(const std::vector<std::string>& arguments,
                          const ProgramSurroundings& surroundings = {});

/// Whether PATH has this program.
bool has_program(const std::string& name);

bool is_root();

std::vector<std::string> lines_of(const std::string& text);
