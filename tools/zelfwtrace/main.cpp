// Shows the trace file of the updater: as text, as JSON, as a summary, or as a capture; or explains
// what failed.

#include "journal/file_handle.h"
#include "zelfwtrace/arguments.h"
#include "zelfwtrace/conversation.h"
#include "zelfwtrace/escape.h"
#include "zelfwtrace/output.h"
#include "zelfwtrace/trace_reader.h"

#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <exception>

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

/// Reads the file once for the number of records of each image, and goes back to where it stood.
/// Empty when the file can be read once only.
ImageTotals count_records(FILE* stream) {
    const off_t start = ftello(stream);
    if (start < 0) {
        return {};
    }
    Conversations conversations;
    TraceReader reader(stream);
    for (TraceEntry entry; reader.next(entry);) {
        conversations.follow(entry);
    }
    clearerr(stream);
    return fseeko(stream, start, SEEK_SET) == 0 ? conversations.counted() : ImageTotals{};
}

std::unique_ptr<TraceOutput> make_output(const TraceArguments& arguments, std::string& reason) {
    if (arguments.command == TraceCommand::pcap) {
        return capture_output(arguments.capture, reason);
    }
    if (arguments.command == TraceCommand::summary) {
        return arguments.json ? summary_json_output() : summary_output(arguments.zone);
    }
    if (arguments.command == TraceCommand::explain) {
        return explain_output(arguments.zone, arguments.json);
    }
    if (arguments.json) {
        return json_output();
    }
    return text_output({.zone = arguments.zone, .with_bytes = arguments.with_bytes});
}

int show(FILE* stream, const std::string& name, const TraceArguments& arguments) {
    std::string reason;
    const std::unique_ptr<TraceOutput> output = make_output(arguments, reason);
    if (output == nullptr) {
        return failure(arguments.capture, reason);
    }
    const bool needs_totals = arguments.command == TraceCommand::show;
    Conversations conversations(needs_totals ? count_records(stream) : ImageTotals{});
    TraceReader reader(stream);
    for (TraceEntry entry; reader.next(entry);) {
        const Meaning meaning = conversations.follow(entry);
        if (arguments.filter.passes(entry)) {
            output->take(entry, meaning);
        }
    }
    reason = output->finish();
    int result = output->exit_code();
    if (!reason.empty()) {
        result = failure(arguments.capture.empty() ? "standard output" : arguments.capture, reason);
    }
    if (reader.damage()) {
        result = failure(name, printed("offset %" PRIu64 ": %s", reader.damage()->offset,
                                       reader.damage()->reason.c_str()));
    }
    return result;
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
