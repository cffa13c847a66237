/// \file
/// Runs a function or a program in a child process and catches what it writes and how it ends.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

struct ChildEnd {
    int exit_code = -1;  ///< -1 when a signal ended the child
    int signal = 0;      ///< the signal that ended the child, else 0
    std::string output;  ///< standard output
    std::string errors;  ///< standard error
};

/// Runs `body` in a child that then ends with exit code 0, unless it ended otherwise. A child that
/// takes longer than half a minute (ten times that under sanitizers) is ended by SIGALRM.
ChildEnd run_in_child(const std::function<void()>& body);

/// As `run_in_child`, as a user without privileges. Only for the super-user.
ChildEnd run_as_ordinary_user(const std::function<void()>& body);

/// The user and group ID of that user.
constexpr uid_t ordinary_user = 65534;

/// A program's arguments (without its name) and what is added to its environment ("NAME=value").
struct ProgramRun {
    std::vector<std::string> arguments;
    std::vector<std::string> environment = {};
    bool as_ordinary_user = false;
};

/// Runs the program at `path` in the directory the test runs in. Its argument 0 is the file's name.
ChildEnd run_program(const std::string& path, const ProgramRun& run);

/// Makes the calling process one without privileges; it must not go on otherwise.
void become_ordinary_user();

/// True for the super-user, who alone can take another user's identity.
bool is_super_user();
