// Shows the trace file of the updater: as text, as JSON, as a summary, as a capture, or as a page;
// or explains what failed.

#include "journal/file_handle.h"
#include "zelfwtrace/arguments.h"
#include "zelfwtrace/conversation.h"
#include "zelfwtrace/escape.h"
#include "zelfwtrace/output.h"
#include "zelfwtrace/redact.h"
#include "zelfwtrace/report/report_command.h"
#include "zelfwtrace/run_counter.h"
#include "zelfwtrace/trace_reader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <exception>
#include <optional>
#include <utility>

namespace {

constexpr int exit_success = 0;
constexpr int exit_failure = 1;
constexpr int exit_usage = 2;

int failure(const std::string& subject, const std::string& reason) {
    fflush(stdout);
    fprintf(stderr, "zelfwtrace: %s: %s\n", subject.c_str(), reason.c_str());
    return exit_failure;
}

bool is_file_of(FILE* stream, const std::string& path) {
    struct stat opened = {}, named = {};
    return fstat(fileno(stream), &opened) == 0 && stat(path.c_str(), &named) == 0 &&
           opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

/// What a first reading of the whole file tells; nothing when it can be read once only.
struct Survey {
    ImageTotals totals;
    std::optional<std::uint32_t> runs;
    StandIns names;
};

/// Reads the file once, and goes back to where it stood.
Survey survey(FILE* stream) {
    const off_t start = ftello(stream);
    if (start < 0) {
        return {};
    }
    Conversations conversations;
    RunCounter runs;
    StandIns names;
    TraceReader reader(stream);
    do {
        for (TraceEntry entry; reader.next(entry);) {
            conversations.follow(entry);
            runs.run_of(entry);
            names.learn(entry);
        }
        conversations.forget();
    } while (reader.step_over_damage());
    clearerr(stream);
    if (fseeko(stream, start, SEEK_SET) != 0) {
        return {};
    }
    return {conversations.counted(), runs.count(), std::move(names)};
}

/// Gives the reason when the file has no such run; a run counted from the last gets its number.
std::string settle_run(const Survey& known, std::optional<std::int64_t>& run) {
    if (!run) {
        return "";
    }
    if (!known.runs) {
        return *run < 0 ? "the last runs are known only of a file that can be read twice" : "";
    }
    const std::int64_t number = *run < 0 ? *known.runs + 1 + *run : *run;
    if (number < 1 || number > *known.runs) {
        return "there is no run " + std::to_string(*run) + ", the file has " +
               std::to_string(*known.runs) + (*known.runs == 1 ? " run" : " runs");
    }
    run = number;
    return "";
}

/// Who asks for bytes or for kinds of records wants to see each of them.
bool is_progress_wanted(const TraceArguments& arguments) {
    return arguments.follow && !arguments.with_bytes && arguments.filter.kinds.empty() &&
           isatty(STDOUT_FILENO) != 0;
}

std::unique_ptr<TraceOutput> make_output(const TraceArguments& arguments, const TraceFilter& filter,
                                         const Survey& known, std::string& reason) {
    if (arguments.command == TraceCommand::redact) {
        return redacted_output(arguments.capture, known.names, reason);
    }
    if (arguments.command == TraceCommand::pcap) {
        return capture_output(arguments.capture, reason);
    }
    if (arguments.command == TraceCommand::summary) {
        return arguments.json ? summary_json_output() : summary_output(arguments.zone);
    }
    if (arguments.command == TraceCommand::explain) {
        return explain_output(arguments.zone, arguments.json,
                              static_cast<std::uint32_t>(filter.run.value_or(1)));
    }
    if (arguments.json) {
        return json_output();
    }
    const TextStyle style = {.zone = arguments.zone, .with_bytes = arguments.with_bytes};
    return is_progress_wanted(arguments) ? progress_output(style) : text_output(style);
}

/// The names of damaged places; those beyond the first ones are counted only.
class DamageReport {
  public:
    explicit DamageReport(std::string file) : file_(std::move(file)) {}

    /// `next` is where the next readable record begins, if any does.
    void add(const TraceDamage& damage, std::optional<std::uint64_t> next) {
        if (++places_ > most_named) {
            return;
        }
        std::string reason = damage.reason;
        if (next && *next >= damage.offset) {
            reason += printed("; %" PRIu64 " bytes lost", *next - damage.offset);
        }
        if (next) {
            reason +=
                printed("%s going on at offset %" PRIu64, *next < damage.offset ? ";" : ",", *next);
        }
        failure(file_, printed("offset %" PRIu64 ": %s", damage.offset, reason.c_str()));
    }
    /// The exit code.
    int finish() const {
        if (places_ > most_named) {
            failure(file_, printed("%d more damaged places", places_ - most_named));
        }
        return places_ == 0 ? exit_success : exit_failure;
    }

  private:
    static constexpr int most_named = 20;

    std::string file_;
    int places_ = 0;
};

/// Where a reading has come to.
struct Reading {
    TraceReader reader;
    Conversations conversations;
    RunCounter runs;
    std::uint64_t records = 0;
};

void show_records(Reading& reading, const TraceFilter& filter, TraceOutput& output) {
    for (TraceEntry entry; reading.reader.next(entry);) {
        const Meaning meaning = reading.conversations.follow(entry);
        const std::uint32_t run = reading.runs.run_of(entry);
        ++reading.records;
        if (filter.passes(entry, run)) {
            output.take(entry, meaning);
        }
    }
}

/// Shows what can be read, and tells of what can't.
int show_all(Reading& reading, const TraceFilter& filter, TraceOutput& output,
             const std::string& name) {
    DamageReport report(name);
    for (;;) {
        show_records(reading, filter, output);
        const std::optional<TraceDamage> damage = reading.reader.damage();
        if (!damage) {
            break;
        }
        const bool goes_on = reading.reader.step_over_damage();
        if (!goes_on && reading.records == 0 && reading.reader.foreign() != nullptr) {
            return failure(name, reading.reader.foreign());
        }
        report.add(*damage, goes_on ? std::optional(reading.reader.offset()) : std::nullopt);
        reading.conversations.forget();
        if (!goes_on) {
            break;
        }
    }
    if (reading.reader.offset() == 0 && !reading.reader.damage()) {
        return failure(name, "the file is empty");
    }
    return report.finish();
}

/// Called at the end of a file that may grow.
bool wait_for_more(TraceOutput& output) {
    constexpr timespec pause = {.tv_sec = 0, .tv_nsec = 100'000'000};
    output.pause();
    fflush(stdout);
    nanosleep(&pause, nullptr);
    return ferror(stdout) == 0;
}

int show(FILE* stream, const std::string& name, const TraceArguments& arguments) {
    const bool needs_names = arguments.command == TraceCommand::redact;
    const bool needs_survey =
        arguments.command == TraceCommand::show || needs_names || arguments.filter.run;
    const Survey known = needs_survey ? survey(stream) : Survey{};
    TraceFilter filter = arguments.filter;
    std::string reason = settle_run(known, filter.run);
    if (needs_names && !known.runs) {
        reason = "names are known only of a file that can be read twice";
    }
    if (!reason.empty()) {
        return failure(name, reason);
    }
    const std::unique_ptr<TraceOutput> output = make_output(arguments, filter, known, reason);
    if (output == nullptr) {
        return failure(arguments.capture, reason);
    }
    const TraceReader::WaitForMore wait = arguments.follow
                                              ? [&output] { return wait_for_more(*output); }
                                              : TraceReader::WaitForMore{};
    Reading reading{.reader = TraceReader(stream, wait),
                    .conversations = Conversations(known.totals),
                    .runs = {}};
    const int damage = show_all(reading, filter, *output, name);
    reason = output->finish();
    if (!reason.empty()) {
        return failure(arguments.capture.empty() ? "standard output" : arguments.capture, reason);
    }
    return damage != exit_success ? damage : output->exit_code();
}

/// Reads a file of a report: the reason when nothing of it can be read.
std::string read_reported(FILE* stream, const std::string& name, const TraceArguments& arguments,
                          TraceOutput& output, bool& is_damaged) {
    TraceFilter filter = arguments.filter;
    if (filter.run) {
        std::string reason = settle_run(survey(stream), filter.run);
        if (!reason.empty()) {
            return reason;
        }
    }
    Reading reading{.reader = TraceReader(stream), .conversations = Conversations(), .runs = {}};
    is_damaged = show_all(reading, filter, output, name) != exit_success;
    return reading.records == 0 ? "there is nothing to report" : "";
}

int report(const TraceArguments& arguments) {
    const TraceRead read = [&arguments](const std::string& path, TraceOutput& output,
                                        bool& is_damaged) -> std::string {
        if (path == "-") {
            return read_reported(stdin, "standard input", arguments, output, is_damaged);
        }
        const FileHandle file(fopen(path.c_str(), "rbe"));
        return file == nullptr ? strerror(errno)
                               : read_reported(file.get(), path, arguments, output, is_damaged);
    };
    return write_report(arguments, read, failure) ? exit_success : exit_failure;
}

int run(const TraceArguments& arguments) {
    if (arguments.help) {
        fputs(trace_help_text, stdout);
        return exit_success;
    }
    if (arguments.version) {
        printf("zelfwtrace %s\n", ZELF_VERSION);
        return exit_success;
    }
    if (arguments.command == TraceCommand::report) {
        return report(arguments);
    }
    if (arguments.file == "-") {
        return show(stdin, "standard input", arguments);
    }
    const FileHandle file(fopen(arguments.file.c_str(), "rbe"));
    if (file == nullptr) {
        return failure(arguments.file, strerror(errno));
    }
    if (!arguments.capture.empty() && is_file_of(file.get(), arguments.capture)) {
        return failure(arguments.capture, "the capture would replace the trace itself");
    }
    return show(file.get(), arguments.file, arguments);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        TraceArguments arguments;
        const std::vector<std::string> words(argv + (argc > 0 ? 1 : 0), argv + argc);
        if (const auto reason = parse_trace_arguments(words, arguments)) {
            fprintf(stderr, "zelfwtrace: %s\nTry 'zelfwtrace --help'.\n", reason->c_str());
            return exit_usage;
        }
        const int result = run(arguments);
        if (fflush(stdout) != 0 || ferror(stdout) != 0) {
            perror("zelfwtrace: standard output");
            return exit_failure;
        }
        return result;
    } catch (const std::exception& error) {
        return failure("stopped", error.what());
    }
}
