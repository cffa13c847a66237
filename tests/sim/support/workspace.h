/// \file
/// A directory of a test's own, with a bus file in it.
#pragma once

#include "support/temporary_directory.h"
#include "support/transfer_record.h"

#include <string>
#include <string_view>
#include <vector>

class Workspace {
  public:
    std::string path(const std::string& name) const { return directory_.path(name); }
    std::string bus() const { return path("bus.toml"); }
    std::string state() const { return path("state"); }
    std::string record() const { return path("record.tsv"); }

    /// Writes a file into the directory and gives its path.
    std::string write(const std::string& name, const std::string& text) const {
        return directory_.write(name, text);
    }
    std::string read(const std::string& name) const { return read_file(path(name)); }

    /// Writes the bus file and points the three environment variables here.
    void use_bus(const std::string& text) const;

  private:
    TemporaryDirectory directory_;
};

/// All lines of a record.
std::vector<Transfer> read_record(const std::string& file);

/// How many lines are of a kind.
int count_kind(const std::vector<Transfer>& lines, std::string_view kind);

/// What a command line prints, both outputs, and its exit code.
struct Outcome {
    int code = -1;
    std::string output;
};
Outcome run(const std::string& command);
