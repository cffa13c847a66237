/// \file
/// Runs a function or a program in a child process and catches what it writes and how it ends.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

struct ChildEnd {
    int exit_code = -1;  ///< -1 when a signal ended the child
    int signal = 0;      ///< the signal that ended the child, else 0
    bool timed_out = false;
    std::string output;  ///< standard output
    std::string errors;  ///< standard error
};

/// A child on its way. It is killed when it outlives its time or its owner.
class ChildProcess {
  public:
    /// The child runs `body` and ends with the exit code that it gives.
    explicit ChildProcess(const std::function<int()>& body);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Waits until `condition` holds. False when the child ended, or its time passed, before.
    bool wait_until(const std::function<bool()>& condition);
    void send_signal(int number);
    /// Waits for the end; what the child wrote is not known here.
    ChildEnd finish();

  private:
    bool has_ended();

    pid_t pid_ = -1;
    int wait_status_ = 0;
    bool ended_ = false;
    std::chrono::steady_clock::time_point deadline_;
};

/// Runs `body` in a child that then ends with exit code 0, unless it ended otherwise.
ChildEnd run_in_child(const std::function<void()>& body);

/// As `run_in_child`, as a user without privileges. Only for the super-user.
ChildEnd run_as_ordinary_user(const std::function<void()>& body);

/// The user and group ID of that user.
constexpr uid_t ordinary_user = 65534;

/// A program's arguments (without its name) and its surroundings.
struct ProgramRun {
    std::vector<std::string> arguments = {};
    std::vector<std::string> environment = {};  ///< "NAME=value", added to the test's own
    bool as_ordinary_user = false;
    std::string directory = {};   ///< where it runs; empty: where the test does
    bool has_one_output = false;  ///< standard error goes where standard output goes
};

/// Runs the program at `path`. Its argument 0 is the file's name.
ChildEnd run_program(const std::string& path, const ProgramRun& run);

/// Runs a program that is looked up in PATH, both outputs in one.
ChildEnd run_command(const std::vector<std::string>& words, ProgramRun run = {});

/// Runs a command line of a shell.
ChildEnd run_shell(const std::string& command);

/// A word that a shell takes as it is; it has no quotation mark.
std::string quoted(const std::string& word);

/// The pointers to texts that exec takes, with the null behind them.
std::vector<char*> pointers_to(std::vector<std::string>& texts);

/// Makes the calling process one without privileges; it must not go on otherwise.
void become_ordinary_user();

/// True for the super-user, who alone can take another user's identity.
bool is_super_user();

/// Whether PATH has this program.
bool has_program(const std::string& name);
