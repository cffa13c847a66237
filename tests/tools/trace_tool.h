/// \file
/// Runs the built zelfwtrace, and reads what it writes.
#pragma once

#include "support/temporary_directory.h"
#include "tool_run.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

/// A directory with one trace file in it.
class TraceToolTest : public testing::Test {
  protected:
    std::string path(const std::string& name) const { return directory_.path(name); }
    void set_trace(const std::string& bytes) { write_file(path("trace.bin"), bytes); }

    /// Runs zelfwtrace with these words of a shell.
    ToolRun run(const std::string& arguments) const;
    /// Runs it on the trace file, with these words in front of its name; times are UTC.
    ToolRun show(const std::string& options = "") const;
    /// What the lines of the trace say behind time, process and thread: product ID and words.
    std::vector<std::string> words(const std::string& options = "") const;

    TemporaryDirectory directory_;
};

/// What a line says behind its stamps.
std::vector<std::string> words_of(const std::vector<std::string>& lines);
