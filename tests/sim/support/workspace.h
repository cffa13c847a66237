/// \file
/// A directory of a test's own, with a bus file in it.
#pragma once

#include "model/device/basics.h"

#include <string>
#include <string_view>
#include <vector>

/// Removed with everything in it at the end.
class Workspace {
  public:
    Workspace();
    ~Workspace();
    Workspace(const Workspace&) = delete;
    Workspace& operator=(const Workspace&) = delete;

    std::string path(std::string_view name) const { return directory_ + "/" + std::string(name); }
    std::string bus() const { return path("bus.toml"); }
    std::string state() const { return path("state"); }
    std::string record() const { return path("record.tsv"); }

    /// Writes a file into the directory and gives its path.
    std::string write(std::string_view name, std::string_view text) const;
    std::string read(std::string_view name) const;

    /// Writes the bus file and points the three environment variables here.
    void use_bus(std::string_view text) const;

  private:
    std::string directory_;
};

/// One line of the record.
struct RecordLine {
    double time = 0;
    std::string device;
    int address = 0;
    std::string kind;
    std::string setup;
    std::string data;
    int result = 0;
};

/// Reads a record; a line that does not have its seven fields fails the test.
std::vector<RecordLine> read_record(const std::string& file);

/// How many lines are of a kind.
int count_kind(const std::vector<RecordLine>& lines, std::string_view kind);

/// What a command line prints, both outputs, and its exit code.
struct Outcome {
    int code = -1;
    std::string output;
};
Outcome run(const std::string& command);
