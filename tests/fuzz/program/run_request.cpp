#include "program/run_request.h"

#include "firmware/firmware_search.h"
#include "journal/output.h"
#include "journal/zelfwtrace.h"
#include "session/zelflash.h"
#include "settings.h"
#include "support/scratch_directory.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <span>

namespace {

using Arguments = std::vector<std::string>;

constexpr std::uint8_t printer_main[] =
    "3C020102\x01\xff\x00\x00\x00\x04\x00\x00\x01wxyz\x02\x00\x00\x02xy\x00\xab\xcd";
constexpr std::uint8_t printer_setup[] =
    "3C020103\x05\xff\x00\x02\x01\x03\x01\x05\x06\x03\x10\x00\x01xyz\x00\x12\x34";

std::string in_directory(const char* name) {
    return scratch_directory() + "/" + name;
}

Arguments take_command(FuzzInput& input) {
    const std::string directory = scratch_directory();
    switch (input.below(12)) {
        case 1:
            return {"-L"};
        case 2:
            return {"-R"};
        case 3:
            return {"-G", std::to_string(input.below(20)), "-w", in_directory("component.bin")};
        case 4:
            return {"-F", "main.dat", "-F", "setup.dat", "-F", "missing.dat", "-p", directory};
        case 5:
            return {"-C", in_directory("flash.cfg"), "-p", directory};
        case 6:
            return {"-S", "-p", directory};
        case 7:
            return {"-D", in_directory("main.dat")};
        case 8:
            return {"-V"};
        case 9:
            return {"-E", std::to_string(static_cast<std::int8_t>(input.byte()))};
        case 10:
            return {std::string("-") + static_cast<char>(input.byte())};
        default:
            return {"-U", "-p", directory};
    }
}

/// The switches of the command line, each with its argument.
Arguments take_switches(FuzzInput& input) {
    struct Switch {
        const char* option;
        std::vector<const char*> arguments;
    };
    static const Switch switches[] = {
        {"-f", {}},
        {"-a", {}},
        {"-d", {"3C02", "3C06", "0", "ffffffff3C02", "xyz"}},
        {"-s", {"SN-0042", "NO SERIAL NUMBER", "x"}},
        {"-n", {"0", "1", "2", "3"}},
        {"-o", {"0", "1", "2", "3", "4", "5", "6", "99"}},
        {"-c", {"1", "0", "15"}},
        {"-r", {"rma.txt"}},
        {"-0", {"0", "15", "1000", "-5"}},
        // A run takes a step for each ten milliseconds: not the longest time, of 24 days.
        {"-1", {"0", "200", "9999"}},
        {"-2", {"0", "200"}},
        {"-3", {"0", "200"}},
        {"-4", {"0", "200"}},
    };
    Arguments arguments;
    for (unsigned int left = input.below(8); left > 0; --left) {
        const Switch& chosen = switches[input.below(std::size(switches))];
        arguments.emplace_back(chosen.option);
        if (!chosen.arguments.empty()) {
            const std::string argument = chosen.arguments[input.byte() % chosen.arguments.size()];
            arguments.push_back(argument == "rma.txt" ? in_directory("rma.txt") : argument);
        }
    }
    return arguments;
}

void clear_selections() {
    reset_options();
    numberOffwfilenames = 0;
    NumberOfDeviceListEntries = NumberOfSerialNoListEntries = 0;
    numberOfusbFlashFiles = 0;
    std::fill(std::begin(files), std::end(files), FlashFile{});
}

}  // namespace

Arguments take_command_line(FuzzInput& input) {
    const bool has_journals = (input.byte() & 1) != 0;
    const char* const journal = has_journals ? "/dev/null" : "0";
    Arguments line = {"zelfwupdate", "-l", journal, "-t", journal};
    for (const Arguments& part : {take_switches(input), take_command(input)}) {
        line.insert(line.end(), part.begin(), part.end());
    }
    return line;
}

void put_firmware_files(FuzzInput& input) {
    static bool are_good_ones = false;
    const std::uint8_t choice = input.byte();
    if ((choice & 1) != 0) {
        const auto content = input.bytes(input.byte());
        write_scratch_file("main.dat", content);
        are_good_ones = false;
    } else if (!are_good_ones) {
        write_scratch_file("main.dat", std::span(printer_main).first(sizeof printer_main - 1));
        write_scratch_file("setup.dat", std::span(printer_setup).first(sizeof printer_setup - 1));
        constexpr std::uint8_t names[] = "# names\nmain.dat\nsetup.dat\n";
        write_scratch_file("flash.cfg", std::span(names).first(sizeof names - 1));
        are_good_ones = true;
    }
    const std::string marker = in_directory("main.dat.force");
    if ((choice & 2) != 0) {
        write_scratch_file("main.dat.force", {});
    } else {
        static_cast<void>(std::remove(marker.c_str()));
    }
}

void restore_program_state() {
    clear_selections();
    information_timeout = default_information_timeout;
    erase_timeout = default_erase_timeout;
    command_timeout = default_command_timeout;
    checksum_timeout = default_checksum_timeout;
    reset_sleep_timeout = default_reset_sleep_timeout;
    force_update = continue_on_failure = display_desktop_progress = 0;
    list_devices = select_devices = device_firmware_match_only = 0;
    sdv_dawu_hw = use_information_record_ec_level = old_progress = skip_version_check = 0;
    oem_vendor = extended_components = check_for_update_only = 0;
    comp_update_id = get_component_number = -1;
    background_read = 1;
    global_reading_information = 0;
    read_hid_in_progress = 0;
    OutputLevel = 1;
    Verbose = 0;
    trace.reset();
}
