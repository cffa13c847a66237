/// \file
/// How the runs of a test ended. The program makes an exit code of a crash, and a test that looks
/// at something else would not see it: every run is judged here.
#pragma once

#include "support/program.h"

#include <string>
#include <vector>

class RunEnds {
  public:
    /// What the next run ends with, where that is not an exit code of its command and a closed log.
    void expect_signal(int number) { next_.signal = number; }
    void expect_fault_report() { next_.has_fault_report = true; }
    void expect_open_log() { next_.has_open_log = true; }

    /// Fails the test when the run ended otherwise than expected.
    void judge(const std::vector<std::string>& arguments, const RunResult& run);

  private:
    struct Expectation {
        int signal = 0;
        bool has_fault_report = false;
        bool has_open_log = false;
    };
    Expectation next_;
};
