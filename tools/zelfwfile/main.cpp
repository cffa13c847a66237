// Makes firmware files from descriptions or traces, and checks, shows, compares and takes apart
// such files.

#include "common/file_access.h"
#include "zelfwfile/firmware_check.h"
#include "zelfwfile/firmware_content.h"
#include "zelfwfile/firmware_description.h"
#include "zelfwfile/firmware_diff.h"
#include "zelfwfile/firmware_extract.h"
#include "zelfwfile/firmware_from_trace.h"
#include "zelfwfile/firmware_image.h"
#include "zelfwfile/firmware_show.h"
#include "zelfwfile/trace_images.h"

#include <sys/stat.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int exit_success = 0;
constexpr int exit_failure = 1;
constexpr int exit_usage = 2;

constexpr char help_text[] = R"(NAME
  zelfwfile - make, check and take apart firmware files

SYNOPSIS
  zelfwfile make DESCRIPTION.toml [-o OUT.dat]
  zelfwfile check FILE...
  zelfwfile show FILE... [--json]
  zelfwfile diff FILE FILE
  zelfwfile extract FILE [-o DIRECTORY]
  zelfwfile from-trace TRACE [--run N] [-o DIRECTORY]
  zelfwfile [COMMAND] --help | --version

COMMANDS
  make    Writes the firmware file that the description describes, to OUT.dat,
          or beside the description under its name with the extension ".dat".
          The file is replaced as a whole; after an error it is as it was.

  check   Reads each file to its last byte and prints one line for it: "OK" and
          what the file is for, or the offset and reason of the first thing that
          is wrong. A file is whole when
            - the header is eight hexadecimal digits, product ID and level above 0,
            - every record is complete, and at least one carries data,
            - all records name one component, and no level but the header's,
            - an end mark and the right checksum follow, and nothing else.

  show    Prints everything that a file holds, as far as it can be read: what the
          updater reads of it, the checksum given and right, and each record.

  diff    Prints a line for each record, and in it each byte, in which two files
          differ; nothing when they are the same.

  extract Writes a description, and an image where all records have one size,
          from which "make" makes the same file, byte for byte. They get the
          file's name with the extensions ".toml" and ".bin". A file that no
          description can express is refused with the reason.

  from-trace
          Rebuilds the firmware files that a run of the updater sent, from its
          trace, and tells what is guessed. An image that was broken off gets the
          extension ".part", and neither end mark nor checksum: it is no firmware
          file. A file that is there with other bytes is not replaced.

OPTIONS
  -o, --output NAME    the file that "make" writes; the directory of "extract" and
                       "from-trace", else the current one
  -j, --json           of "show": one JSON object a file
      --run N          of "from-trace": the run of the trace, counted from 1, or
                       with -1 from the last; the last one if not given
  -h, --help           this text
      --version        the version
  --                   what follows is no option

DESCRIPTION FILE
  product     = 0x3C35          USB product ID, 1 to 0xFFFF (required)
  level       = "01.05"         EC level, major and minor, hexadecimal (required)
  component   = 0               component that the image is for, 0 to 14
  build       = 0               build level, 0 to 255
  name        = "Main firmware" the component's name, at most 32 characters
  type        = "firmware"      or "unspecified", "configuration", "font"
  control     = "increasing"    or "random": any other level is an update
  information = ["component-list", "extended-list", "name"]
                                information records, in this order. Others:
                                "version-list", "version", "version-with-build",
                                "inline-version", "inline-version-text".
                                Left out: as here, without "name" if there is none
  checksum    = 0x1D0F          in place of the right one, 0 to 0xFFFF

  [data]                        the image; one of the first three
  hex         = ["00 11", "22"] one text of bytes for each record
  image       = "main.bin"      a binary file, looked for beside the description
  pattern     = 80              this many records of made-up bytes, always the same
  record_size = 64              bytes of each record of "image" and "pattern", 1 to 255

EXIT STATUS
  0  success; all files are whole; both files are the same
  1  the file could not be made, taken apart or rebuilt; a file is not whole; the
     files differ
  2  wrong arguments; of "diff" also a file that could not be read

EXAMPLES
  zelfwfile make printer-main.toml -o firmware/printer-main.dat
  zelfwfile check firmware/*.dat
  zelfwfile show --json printer-main.dat
  zelfwfile extract printer-main.dat -o sources
  zelfwfile from-trace /tmp/zelfwtrace.log -o sent
)";

constexpr char make_takes_one[] = "'make' takes one description; -o names the output";

struct Arguments {
    bool help = false;
    bool version = false;
    bool json = false;
    std::optional<std::string> output;
    std::optional<std::int64_t> run;
    std::vector<std::string> operands;
};

int usage_error(const std::string& reason) {
    fprintf(stderr, "zelfwfile: %s\nTry 'zelfwfile --help'.\n", reason.c_str());
    return exit_usage;
}

std::optional<std::int64_t> run_number(std::string_view text) {
    std::int64_t run = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), run);
    const bool is_number = error == std::errc{} && end == text.data() + text.size();
    return is_number && run != 0 && run >= INT32_MIN ? std::optional(run) : std::nullopt;
}

/// Reads one option at `at` and moves it to the option's last argument; gives the reason when it
/// can't.
std::optional<std::string> take_option(const std::vector<std::string>& given, std::size_t& at,
                                       Arguments& arguments) {
    const std::string& option = given[at];
    if (option == "-h" || option == "--help") {
        arguments.help = true;
    } else if (option == "--version") {
        arguments.version = true;
    } else if (option == "-j" || option == "--json") {
        arguments.json = true;
    } else if (option == "-o" || option == "--output") {
        if (at + 1 >= given.size() || given[at + 1].empty()) {
            return "option '" + option + "' needs a file name";
        }
        if (arguments.output) {
            return "option '" + option + "' was given twice";
        }
        arguments.output = given[++at];
    } else if (option == "--run") {
        if (at + 1 >= given.size() || !(arguments.run = run_number(given[at + 1]))) {
            return "option '--run' needs a number, 1 for the first run, -1 for the last";
        }
        ++at;
    } else {
        return "unknown option '" + option + "'";
    }
    return std::nullopt;
}

std::optional<std::string> parse(const std::vector<std::string>& given, Arguments& arguments) {
    bool options_ended = false;
    for (std::size_t at = 0; at < given.size(); ++at) {
        const std::string& argument = given[at];
        if (!options_ended && argument == "--") {
            options_ended = true;
        } else if (options_ended || argument.size() < 2 || argument.front() != '-') {
            arguments.operands.push_back(argument);
        } else if (auto reason = take_option(given, at, arguments)) {
            return reason;
        }
    }
    return std::nullopt;
}

int make(const std::string& description, const std::optional<std::string>& output) {
    const std::string target =
        output.value_or(std::filesystem::path(description).replace_extension(".dat").string());
    try {
        write_whole_file(target, firmware_file_bytes(read_firmware_description(description)));
    } catch (const std::exception& error) {
        fprintf(stderr, "%s\n", error.what());
        return exit_failure;
    }
    return exit_success;
}

int check(const std::vector<std::string>& files) {
    int result = exit_success;
    for (const std::string& file : files) {
        const FirmwareVerdict verdict = check_firmware_file(file);
        printf("%s: %s\n", file.c_str(), verdict.text.c_str());
        if (!verdict.whole) {
            result = exit_failure;
        }
    }
    return result;
}

int failure(const std::string& reason, int code = exit_failure) {
    fflush(stdout);
    fprintf(stderr, "%s\n", reason.c_str());
    return code;
}

int show(const std::vector<std::string>& files, bool as_json) {
    int result = exit_success;
    for (const std::string& file : files) {
        try {
            const FirmwareContent content = read_firmware_content(file);
            fputs((as_json ? shown_as_json(file, content) : shown_as_text(file, content)).c_str(),
                  stdout);
            result = content.trouble.empty() ? result : exit_failure;
        } catch (const std::exception& error) {
            result = failure(error.what());
        }
    }
    return result;
}

int diff(const std::string& one, const std::string& other) {
    try {
        const std::string differences =
            firmware_differences(read_firmware_content(one), read_firmware_content(other));
        fputs(differences.c_str(), stdout);
        return differences.empty() ? exit_success : exit_failure;
    } catch (const std::exception& error) {
        return failure(error.what(), exit_usage);
    }
}

bool is_same_file(const std::string& one, const std::string& other) {
    struct stat first = {}, second = {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

int extract(const std::string& file, const std::string& directory) {
    try {
        const std::filesystem::path stem =
            std::filesystem::path(directory) / std::filesystem::path(file).stem();
        const std::string image = stem.string() + ".bin";
        const std::string description = stem.string() + ".toml";
        const ExtractedFirmware extracted =
            extract_firmware(read_firmware_content(file), stem.filename().string() + ".bin");
        for (const std::string& target : {image, description}) {
            if (is_same_file(target, file)) {
                return failure(file + ": would be replaced by what is extracted from it");
            }
        }
        zelf::create_directories(directory);
        if (!extracted.image.empty()) {
            write_whole_file(image, extracted.image);
        }
        write_whole_file(description, {extracted.description.begin(), extracted.description.end()});
    } catch (const std::exception& error) {
        return failure(file + ": " + error.what());
    }
    return exit_success;
}

/// Writes a rebuilt file and tells what it is. False when it is not whole, or not written.
bool write_rebuilt(const RebuiltFirmware& file, const std::string& directory) {
    const std::string target = (std::filesystem::path(directory) / file.name).string();
    if (file.bytes.empty()) {
        failure(target + ": not written: " + file.words);
        return false;
    }
    if (zelf::exists(target) && zelf::read_bytes_of(target) != file.bytes) {
        failure(target + ": is there with other bytes, and is not replaced; -o names a directory");
        return false;
    }
    write_whole_file(target, file.bytes);
    printf("%s: %s%s\n", target.c_str(), file.is_whole ? "" : "NOT WHOLE: ", file.words.c_str());
    for (const std::string& words : file.given) {
        printf("  %s\n", words.c_str());
    }
    for (const std::string& words : file.guessed) {
        printf("  guess: %s\n", words.c_str());
    }
    return file.is_whole;
}

std::string no_image_words(const SentImages& sent) {
    std::string words = "run " + std::to_string(sent.run) + " sent no image";
    if (sent.runs_with_images.empty()) {
        return words + (sent.runs == 1 ? "" : ", and no other run did");
    }
    constexpr std::size_t most_named = 8;
    words += "; --run takes";
    std::size_t named = 0;
    for (const std::uint32_t run : sent.runs_with_images) {
        words += (named == 0 ? " " : ", ") + std::to_string(run);
        if (++named == most_named) {
            break;
        }
    }
    return words;
}

int from_trace(const std::string& trace, std::int64_t run, const std::string& directory) {
    try {
        const SentImages sent = read_sent_images(trace, run);
        if (!sent.damage.empty()) {
            failure(trace + ": damaged: " + sent.damage);
        }
        if (sent.images.empty()) {
            return failure(trace + ": " + no_image_words(sent));
        }
        const std::vector<RebuiltFirmware> files = rebuilt_firmware(sent.images);
        if (std::all_of(files.begin(), files.end(),
                        [](const RebuiltFirmware& file) { return file.is_redacted; })) {
            return failure(trace + ": is redacted: the bytes of its images are zeros");
        }
        zelf::create_directories(directory);
        int result = exit_success;
        for (const RebuiltFirmware& file : files) {
            result = write_rebuilt(file, directory) ? result : exit_failure;
        }
        return result;
    } catch (const std::exception& error) {
        return failure(trace + ": " + error.what());
    }
}

/// A command's files: at least and at most so many, and which options go with them.
struct Command {
    const char* name;
    std::size_t least, most;
    bool takes_output, takes_json, takes_run;
    const char* wrong_count;
    int (*run)(const std::vector<std::string>& files, const Arguments& arguments);
};

constexpr std::size_t any_number = SIZE_MAX;

const Command commands[] = {
    {"make", 1, 1, true, false, false, make_takes_one,
     [](const auto& files, const auto& arguments) { return make(files[0], arguments.output); }},
    {"check", 1, any_number, false, false, false, "'check' needs a file",
     [](const auto& files, const auto&) { return check(files); }},
    {"show", 1, any_number, false, true, false, "'show' needs a file",
     [](const auto& files, const auto& arguments) { return show(files, arguments.json); }},
    {"diff", 2, 2, false, false, false, "'diff' takes two files",
     [](const auto& files, const auto&) { return diff(files[0], files[1]); }},
    {"extract", 1, 1, true, false, false, "'extract' takes one file; -o names the directory",
     [](const auto& files, const auto& arguments) {
         return extract(files[0], arguments.output.value_or("."));
     }},
    {"from-trace", 1, 1, true, false, true, "'from-trace' takes one trace; -o names the directory",
     [](const auto& files, const auto& arguments) {
         return from_trace(files[0], arguments.run.value_or(-1), arguments.output.value_or("."));
     }},
};

int run_command(const Command& command, const Arguments& arguments) {
    const std::vector<std::string> files(arguments.operands.begin() + 1, arguments.operands.end());
    if (arguments.output && !command.takes_output) {
        return usage_error(std::string("'") + command.name + "' writes no file");
    }
    if (arguments.json && !command.takes_json) {
        return usage_error("'--json' goes with 'show' only");
    }
    if (arguments.run && !command.takes_run) {
        return usage_error("'--run' goes with 'from-trace' only");
    }
    if (files.size() < command.least || files.size() > command.most) {
        return usage_error(command.wrong_count);
    }
    return command.run(files, arguments);
}

int run(const Arguments& arguments) {
    if (arguments.help) {
        fputs(help_text, stdout);
        return exit_success;
    }
    if (arguments.version) {
        printf("zelfwfile %s\n", ZELF_VERSION);
        return exit_success;
    }
    if (arguments.operands.empty()) {
        return usage_error("no command given");
    }
    const std::string& name = arguments.operands.front();
    for (const Command& command : commands) {
        if (name == command.name) {
            return run_command(command, arguments);
        }
    }
    return usage_error("unknown command '" + name + "'");
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    const std::vector<std::string> given(argv + (argc > 0 ? 1 : 0), argv + argc);
    if (const auto reason = parse(given, arguments)) {
        return usage_error(*reason);
    }
    const int result = run(arguments);
    // What is longer than the stream's buffer has failed before the flush.
    if (fflush(stdout) != 0 || ferror(stdout) != 0) {
        perror("zelfwfile: standard output");
        return exit_failure;
    }
    return result;
}
