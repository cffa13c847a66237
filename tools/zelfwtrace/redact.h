/// \file
/// A copy of a trace that can be handed on: without image bytes, serial numbers and file names.
#pragma once

#include "zelfwtrace/output.h"
#include "zelfwtrace/trace_reader.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

/// Learns serial numbers and file names from the texts of a trace, and gives each a stand-in.
class StandIns {
  public:
    /// To be called for every record of the file, before the first `replace`.
    void learn(const TraceEntry& entry);
    /// The text with stand-ins in place of what was learned.
    std::string replace(std::string_view text) const;

  private:
    void learn_command_line(const std::string& text);
    void add_serial(const std::string& serial);
    void add_file(const std::string& path);

    using Names = std::map<std::string, std::string, std::less<>>;
    /// The longest name that stands by itself at `at`.
    Names::const_iterator find_name(std::string_view text, std::size_t at) const;

    Names stand_ins_;
    std::map<std::string, std::string> files_;  ///< by the path's last part
    unsigned int serials_ = 0;
};

/// Writes a trace to `path`, "-" for standard output. Null and the reason when that can't be
/// written. The names must outlive the output.
std::unique_ptr<TraceOutput> redacted_output(const std::string& path, const StandIns& names,
                                             std::string& reason);
