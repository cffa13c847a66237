/// \file
/// A command that runs in this program's place.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace zelfsim {

struct Command {
    std::string file;
    std::vector<std::string> arguments;              ///< from the command's own name on
    std::map<std::string, std::string> environment;  ///< added to this program's
    bool no_new_rights = false;                      ///< programs with another user's rights fail
};

/// Starts the command, hands it the signals that are sent to this program, and waits for its end.
/// Gives its wait status; throws std::system_error when it cannot be started.
int run_command(const Command& command);

/// Ends this program by the signal that ended the command.
void end_by_signal(int number);

}  // namespace zelfsim
