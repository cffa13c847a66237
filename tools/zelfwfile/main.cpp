// Makes firmware files from descriptions, and tells whether a firmware file is whole.

#include "zelfwfile/firmware_check.h"
#include "zelfwfile/firmware_description.h"
#include "zelfwfile/firmware_image.h"

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
  zelfwfile - make and check firmware files

SYNOPSIS
  zelfwfile make DESCRIPTION.toml [-o OUT.dat]
  zelfwfile check FILE...
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

OPTIONS
  -o, --output FILE    the file that "make" writes
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
  0  success; all files are whole
  1  the file could not be made; a file is not whole
  2  wrong arguments

EXAMPLES
  zelfwfile make printer-main.toml -o firmware/printer-main.dat
  zelfwfile check firmware/*.dat
)";

constexpr char make_takes_one[] = "'make' takes one description; -o names the output";

struct Arguments {
    bool help = false;
    bool version = false;
    std::optional<std::string> output;
    std::vector<std::string> operands;
};

int usage_error(const std::string& reason) {
    fprintf(stderr, "zelfwfile: %s\nTry 'zelfwfile --help'.\n", reason.c_str());
    return exit_usage;
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
    } else if (option == "-o" || option == "--output") {
        if (at + 1 >= given.size() || given[at + 1].empty()) {
            return "option '" + option + "' needs a file name";
        }
        if (arguments.output) {
            return "option '" + option + "' was given twice";
        }
        arguments.output = given[++at];
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
    const std::string& command = arguments.operands.front();
    const std::vector<std::string> files(arguments.operands.begin() + 1, arguments.operands.end());
    if (command == "make") {
        return files.size() == 1 ? make(files.front(), arguments.output)
                                 : usage_error(make_takes_one);
    }
    if (command == "check") {
        if (arguments.output) {
            return usage_error("'check' writes no file");
        }
        return files.empty() ? usage_error("'check' needs a file") : check(files);
    }
    return usage_error("unknown command '" + command + "'");
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    const std::vector<std::string> given(argv + (argc > 0 ? 1 : 0), argv + argc);
    if (const auto reason = parse(given, arguments)) {
        return usage_error(*reason);
    }
    const int result = run(arguments);
    if (fflush(stdout) != 0) {
        perror("zelfwfile: standard output");
        return exit_failure;
    }
    return result;
}
