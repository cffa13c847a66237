/// \file
/// Runs the built program as a child process on a simulated bus.
#pragma once

#include "support/child_process.h"

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

/// Exit codes of a child that could not become the program, which itself ends with 13 at most.
enum FailedPreparation : int {
    no_streams = 120,
    no_working_directory,
    no_right_to_mount,
    no_private_tmp,
    no_program,
};

/// How one run came out.
struct RunResult {
    int exit_code = -1;  ///< -1 when a signal ended it
    int signal = 0;      ///< the signal that ended it, else 0
    bool timed_out = false;
    std::string console;  ///< standard output
    std::string errors;   ///< standard error
    std::string log;      ///< the log file that `-l` names
};

/// What kept a child from becoming the program; empty when it did.
std::string failed_preparation(const RunResult& run);

struct ProgramSettings {
    std::filesystem::path program;
    std::filesystem::path directory;  ///< working directory
    std::filesystem::path console_file, error_file;
    /// Directory of the simulated USB library and its guard; empty for a program that opens none.
    std::filesystem::path simulation;
    std::filesystem::path library;      ///< stands for the USB library; empty: the simulated one
    std::vector<std::string> preloads;  ///< objects, behind the guard
    std::map<std::string, std::string> environment;  ///< added to the test's own
    /// Stands at /tmp for this run; empty: the system's own.
    std::filesystem::path private_tmp;
    /// Is shown how each run ended, with its arguments.
    std::function<void(const std::vector<std::string>&, const RunResult&)> at_end;
};

/// The program on its way. It is killed when it outlives its time or its owner.
class ProgramProcess {
  public:
    ProgramProcess(const ProgramSettings& settings, const std::vector<std::string>& arguments);

    /// Waits until `condition` holds. False when the program ended, or its time passed, before.
    bool wait_until(const std::function<bool()>& condition) { return child_.wait_until(condition); }
    void send_signal(int number) { child_.send_signal(number); }
    /// Waits for the end.
    RunResult finish();

  private:
    std::filesystem::path console_file_, error_file_;
    std::vector<std::string> arguments_;
    decltype(ProgramSettings::at_end) at_end_;
    ChildProcess child_;
};
