#include "zelfwtrace/arguments.h"

#include "common/pattern.h"
#include "zelfwtrace/record_kind.h"

#include <algorithm>
#include <iterator>
#include <sstream>
#include <string_view>
#include <utility>

const char trace_help_text[] = R"(NAME
  zelfwtrace - show the trace file of zelfwupdate

SYNOPSIS
  zelfwtrace show [OPTION...] FILE
  zelfwtrace summary [OPTION...] FILE
  zelfwtrace pcap [OPTION...] FILE -o OUT.pcapng
  zelfwtrace explain [OPTION...] FILE
  zelfwtrace redact [OPTION...] FILE -o OUT
  zelfwtrace report [OPTION...] [NAME=]FILE... -o OUT.html
  zelfwtrace report [OPTION...] --tills TILLS.json -o OUT.html
  zelfwtrace [COMMAND] --help | --version

  FILE is a trace file, or "-" for standard input. A damaged place is told with its
  offset and the reason, and stepped over to the next record that can be read.

COMMANDS
  show     Prints one line for each record: time, seconds since the run began,
           process and thread, product ID, and what the record says. So does
           zelfwtrace without a command.

  summary  Prints for each device: messages, bytes, slowest answer, histogram of
           the answer times.

  pcap     Writes a capture of the transfers for Wireshark, in pcapng format (link
           type LINKTYPE_USB_LINUX_MMAPPED), with the log's lines as comments.

  explain  Tells for each run and device what was to be done and how it ended; for
           what failed: how far it came, the cause, the device's state, what to do,
           and where in the file that shows.

  redact   Writes a copy that can be handed on: image bytes are zeros, each serial
           number and file name has a stand-in (SN0001, file1.dat), the same one
           everywhere. A trace holds whole firmware images. Look through the copy.

  report   Writes a page for a browser, one file that asks nobody for more: each run
           with its devices, what failed, its course of time, the answer times, and
           the conversation. Of a fleet: a row a till, and the same as JSON and CSV.

OUTPUT
  -j, --json           of "show", "summary" and "explain": one JSON object a
                       record, device or run, and line; times are UTC
  -x, --hex            of "show": also each transfer's bytes
  -o, --output OUT     of "pcap", "redact", "report": the file to write, "-" for standard
                       output
      --tills LIST     of "report": the tills of a fleet, a JSON array; writes OUT.json
                       and OUT.csv beside the page, too
  -u, --utc            show and take times as UTC, not as local time
      --follow         of "show": go on as the file grows, until interrupted; on a
                       terminal the records of an image are one line that is rewritten

FILTERS
  -d, --device ID      only transfers of this product ID, four hexadecimal digits
  -k, --kind KIND      only records of this kind: version, text, sent, status
                       (status reports read), data (data answers read)
      --run N              only this run, from 1; -1 is the last, -2 the one before
      --from TIME      only records from this time on
      --to TIME        only records up to this time
  -d and -k may be given several times, or with a list: -k sent,status. TIME is
  "2026-11-20 17:18:07.123", with the end left out as you like ("2026-11-20 17"),
  or today's "17:18", or as --json has it, or @SECONDS since 1970. "explain" and
  "report" take no filter but --run.

OTHER OPTIONS
  -h, --help           this text
      --version        the version
  --                   what follows is no option

EXIT STATUS
  0  success
  1  the file is damaged, or something could not be read or written
  2  wrong arguments
  3  a failure was explained by "explain"

EXAMPLES
  zelfwtrace show -d 3C35 -k sent,status /tmp/zelfwtrace.log
  zelfwtrace show --run -1 /tmp/zelfwtrace.log
  zelfwtrace summary --from 2026-11-20 /tmp/zelfwtrace.log
  zelfwtrace pcap /tmp/zelfwtrace.log -o exchange.pcapng
  zelfwtrace explain /tmp/zelfwtrace.log
  zelfwtrace report --run -1 till7=/tmp/zelfwtrace.log -o till7.html
)";

namespace {

using Reason = std::optional<std::string>;

constexpr std::size_t product_digits = 4;
constexpr int hexadecimal_base = 16;

/// What the options say, before it is understood as a whole.
struct Given {
    std::vector<std::string> devices, kinds, captures, runs, from, to, tills, operands;
};

struct ValueOption {
    const char* letter;  ///< null when there is none
    const char* name;
    std::vector<std::string> Given::*values;
};
const ValueOption value_options[] = {
    {"-d", "--device", &Given::devices},  {"-k", "--kind", &Given::kinds},
    {"-o", "--output", &Given::captures}, {nullptr, "--from", &Given::from},
    {nullptr, "--to", &Given::to},        {nullptr, "--run", &Given::runs},
    {nullptr, "--tills", &Given::tills},
};

struct FlagOption {
    const char* letter;
    const char* name;
    bool TraceArguments::*flag;
};
const FlagOption flag_options[] = {
    {"-h", "--help", &TraceArguments::help},
    {nullptr, "--version", &TraceArguments::version},
    {"-j", "--json", &TraceArguments::json},
    {"-x", "--hex", &TraceArguments::with_bytes},
    {nullptr, "--follow", &TraceArguments::follow},
};

constexpr std::pair<std::string_view, TraceCommand> commands[] = {
    {"show", TraceCommand::show},     {"summary", TraceCommand::summary},
    {"pcap", TraceCommand::pcap},     {"explain", TraceCommand::explain},
    {"redact", TraceCommand::redact}, {"report", TraceCommand::report},
};

/// True when the first word is a command; else it is left to be an option or a file.
bool take_command(const std::vector<std::string>& words, TraceArguments& arguments) {
    for (const auto& [name, command] : commands) {
        if (!words.empty() && words.front() == name) {
            arguments.command = command;
            return true;
        }
    }
    return false;
}

template <typename Option>
bool is_option(const Option& option, const std::string& argument) {
    return argument == option.name || (option.letter != nullptr && argument == option.letter);
}

template <typename Options>
auto* find_option(const Options& options, const std::string& argument) {
    const auto* found =
        std::find_if(std::begin(options), std::end(options),
                     [&argument](const auto& option) { return is_option(option, argument); });
    return found == std::end(options) ? nullptr : found;
}

/// Reads one option at `at` and moves it to the option's last argument.
Reason take_option(const std::vector<std::string>& words, std::size_t& at, Given& given,
                   TraceArguments& arguments) {
    const std::string& word = words[at];
    if (word == "-u" || word == "--utc") {
        arguments.zone = zelf::TimeZone::utc;
        return std::nullopt;
    }
    if (const auto* option = find_option(flag_options, word)) {
        arguments.*(option->flag) = true;
        return std::nullopt;
    }
    const auto* option = find_option(value_options, word);
    if (option == nullptr) {
        return "unknown option '" + word + "'";
    }
    if (at + 1 >= words.size() || words[at + 1].empty()) {
        return "option '" + word + "' needs a value";
    }
    (given.*(option->values)).push_back(words[++at]);
    return std::nullopt;
}

std::vector<std::string> list_items(const std::vector<std::string>& lists) {
    std::vector<std::string> items;
    for (const std::string& list : lists) {
        std::istringstream stream(list);
        for (std::string item; std::getline(stream, item, ',');) {
            items.push_back(item);
        }
        if (list.back() == ',') {
            items.emplace_back();
        }
    }
    return items;
}

Reason take_filter_lists(const Given& given, TraceFilter& filter) {
    for (const std::string& text : list_items(given.devices)) {
        if (text.size() != product_digits ||
            text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos) {
            return "'" + text + "' is no product ID of four hexadecimal digits";
        }
        filter.products.insert(
            static_cast<std::uint16_t>(std::stoul(text, nullptr, hexadecimal_base)));
    }
    for (const std::string& text : list_items(given.kinds)) {
        const auto kind = record_kind_of(text);
        if (!kind) {
            return "'" + text + "' is no kind of record; the kinds are " + record_kind_names();
        }
        filter.kinds.insert(*kind);
    }
    return std::nullopt;
}

Reason take_once(const std::vector<std::string>& values, const char* option,
                 std::optional<std::string>& value) {
    if (values.size() > 1) {
        return std::string("option '") + option + "' was given twice";
    }
    if (!values.empty()) {
        value = values.front();
    }
    return std::nullopt;
}

Reason take_time(const std::vector<std::string>& values, const char* option, zelf::TimeZone zone,
                 std::optional<std::int64_t>& time) {
    std::optional<std::string> text;
    if (auto reason = take_once(values, option, text)) {
        return reason;
    }
    if (text) {
        time = zelf::parse_time(*text, zone);
        if (!time) {
            return "'" + *text + "' is no time";
        }
    }
    return std::nullopt;
}

Reason take_run(const std::vector<std::string>& values, std::optional<std::int64_t>& run) {
    static const zelf::Pattern number("-?[1-9][0-9]{0,8}");
    std::optional<std::string> text;
    if (auto reason = take_once(values, "--run", text)) {
        return reason;
    }
    if (text && !number.match(*text)) {
        return "'" + *text + "' is no run: 1 is the first, -1 the last";
    }
    if (text) {
        run = std::stoll(*text);
    }
    return std::nullopt;
}

bool writes_a_file(TraceCommand command) {
    return command == TraceCommand::pcap || command == TraceCommand::redact ||
           command == TraceCommand::report;
}

std::string quoted_name(TraceCommand command) {
    for (const auto& [name, one] : commands) {
        if (one == command) {
            return "'" + std::string(name) + "'";
        }
    }
    return "";
}

/// "explain" and "report" follow whole runs.
Reason check_filter(const TraceArguments& arguments) {
    const TraceFilter& filter = arguments.filter;
    const bool is_torn =
        !filter.products.empty() || !filter.kinds.empty() || filter.from || filter.to;
    const bool follows =
        arguments.command == TraceCommand::explain || arguments.command == TraceCommand::report;
    return is_torn && follows ? quoted_name(arguments.command) + " takes no filter but '--run'"
                              : Reason();
}

Reason check_tills(const TraceArguments& arguments) {
    if (arguments.tills.empty()) {
        return std::nullopt;
    }
    if (arguments.command != TraceCommand::report) {
        return "'--tills' goes with 'report' only";
    }
    if (arguments.capture == "-") {
        return "'--tills' needs a file to write, not standard output";
    }
    return arguments.filter.run ? Reason("'--run' does not go with '--tills'") : std::nullopt;
}

Reason check_combination(const TraceArguments& arguments) {
    const bool writes = writes_a_file(arguments.command);
    if (writes && arguments.capture.empty()) {
        return quoted_name(arguments.command) + " needs '-o' and the file to write";
    }
    if (!writes && !arguments.capture.empty()) {
        return "'-o' goes with 'pcap', 'redact' and 'report' only";
    }
    if (writes && arguments.json) {
        return "'--json' goes with 'show', 'summary' and 'explain' only";
    }
    if (arguments.with_bytes && (arguments.command != TraceCommand::show || arguments.json)) {
        return "'--hex' goes with lines of text only";
    }
    if (arguments.follow && arguments.command != TraceCommand::show) {
        return "'--follow' goes with 'show' only";
    }
    if (auto reason = check_tills(arguments)) {
        return reason;
    }
    return check_filter(arguments);
}

/// One file; of "report" as many as are given, or a list.
Reason take_operands(const Given& given, TraceArguments& arguments) {
    const bool is_report = arguments.command == TraceCommand::report;
    if (!arguments.tills.empty()) {
        return given.operands.empty() ? Reason() : "'--tills' names all files: give no other";
    }
    if (given.operands.empty()) {
        return "no file given";
    }
    if (given.operands.size() > 1 && !is_report) {
        return "more than one file given";
    }
    arguments.files = given.operands;
    arguments.file = given.operands.front();
    return std::nullopt;
}

Reason understand(const Given& given, TraceArguments& arguments) {
    if (auto reason = take_filter_lists(given, arguments.filter)) {
        return reason;
    }
    if (auto reason = take_time(given.from, "--from", arguments.zone, arguments.filter.from)) {
        return reason;
    }
    if (auto reason = take_time(given.to, "--to", arguments.zone, arguments.filter.to)) {
        return reason;
    }
    if (auto reason = take_run(given.runs, arguments.filter.run)) {
        return reason;
    }
    std::optional<std::string> capture;
    if (auto reason = take_once(given.captures, "--output", capture)) {
        return reason;
    }
    arguments.capture = capture.value_or("");
    std::optional<std::string> tills;
    if (auto reason = take_once(given.tills, "--tills", tills)) {
        return reason;
    }
    arguments.tills = tills.value_or("");
    if (auto reason = check_combination(arguments)) {
        return reason;
    }
    return take_operands(given, arguments);
}

}  // namespace

Reason parse_trace_arguments(const std::vector<std::string>& words, TraceArguments& arguments) {
    Given given;
    bool options_ended = false;
    const std::size_t first = take_command(words, arguments) ? 1 : 0;
    for (std::size_t at = first; at < words.size(); ++at) {
        const std::string& word = words[at];
        if (!options_ended && word == "--") {
            options_ended = true;
        } else if (options_ended || word.size() < 2 || word.front() != '-') {
            given.operands.push_back(word);
        } else if (auto reason = take_option(words, at, given, arguments)) {
            return reason;
        }
    }
    if (arguments.help || arguments.version) {
        return std::nullopt;
    }
    return understand(given, arguments);
}
