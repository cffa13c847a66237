/// \file
/// The forms in which a trace is shown.
#pragma once

#include "common/time_text.h"
#include "zelfwtrace/conversation.h"
#include "zelfwtrace/trace_reader.h"

#include <memory>
#include <string>

/// Takes the records that passed the filter, in the order of the file.
class TraceOutput {
  public:
    TraceOutput() = default;
    virtual ~TraceOutput() = default;
    TraceOutput(const TraceOutput&) = delete;
    TraceOutput& operator=(const TraceOutput&) = delete;

    virtual void take(const TraceEntry& entry, const Meaning& meaning) = 0;
    /// At the end of a file that may grow: all that there is was taken.
    virtual void pause() {}
    /// After the last record. Returns the reason when the output could not be written.
    virtual std::string finish() { return ""; }
    /// After `finish`: what the program ends with when nothing else failed.
    virtual int exit_code() const { return 0; }
};

struct TextStyle {
    zelf::TimeZone zone = zelf::TimeZone::local;
    bool with_bytes = false;  ///< each transfer's bytes in hexadecimal
};

/// One line a record on standard output.
std::unique_ptr<TraceOutput> text_output(const TextStyle& style);

/// Likewise, on a terminal: an image's records in one line that is rewritten as the file grows.
std::unique_ptr<TraceOutput> progress_output(const TextStyle& style);

/// One JSON object a line on standard output.
std::unique_ptr<TraceOutput> json_output();

/// What happened to each device, on standard output at the end.
std::unique_ptr<TraceOutput> summary_output(zelf::TimeZone zone);
/// Likewise, one JSON object a device and line.
std::unique_ptr<TraceOutput> summary_json_output();

/// Why each run failed, on standard output at the end, as paragraphs or one JSON object a run and
/// line. The exit code is 3 when a failure was explained.
std::unique_ptr<TraceOutput> explain_output(zelf::TimeZone zone, bool is_json,
                                            std::uint32_t first_run);

/// A capture of the transfers as they went over the bus, in pcapng format, the lines of the log as
/// comments; "-" is standard output. Null and the reason when the file can't be written.
std::unique_ptr<TraceOutput> capture_output(const std::string& path, std::string& reason);
