#include "command_line/usage.h"

#include "exit_code.h"
#include "journal/output.h"
#include "settings.h"

#include <cstdio>
#include <iterator>

namespace {

constexpr char usage_commands[] = R"(
Usage: zelfwupdate -command arg ... -options  arg ... 

  Mutually exclusive commands accepted are:
    -U             Update devices (*1 see Device selection filters)
    -L             List attached devices *1
    -C <filename>  Use a configuration file to select device *1
    -F <filename>  Update devices using only firmware files specified
                   in <filename>.  Multiple "-F"'s can be specified on
                   the command line: -F filename1 -F filename2
    -R             Reset devices *1
    -S             Show found firmware/configuration file information
    -D <filename>  Display content of firmware file
    -G <component> Get data from a specific component of the device
                   Requires an output file using the -w option
    -V             Display zelfwupdate program version
    -E <exitcode>  Display description of zelfwupdate exit code

  *1 Device Selection Filters:
    -d <usb-pid>   Update device specified by the USB Product ID: <usb-pid>
                   Multiple "-d"'s can be used: -d usb-pid1 -d usb-pid2
    -s <serial#>   Update device specified by USB Serial Number <serial#>
                   Multiple "-s"'s can be used: -s serial#1 -s serial#2

  Timeouts:
)";

struct TimeoutText {
    char option;
    const char* first_line;
    const char* second_line_start;
    int default_milliseconds;
};

constexpr TimeoutText timeout_texts[] = {
    {'1', "Response timeout in milliseconds after sending erase", "command.",
     default_erase_timeout},
    {'2', "Response timeout in milliseconds after sending update", "command.",
     default_command_timeout},
    {'3', "Response timeout in milliseconds after sending checksum", "command.",
     default_checksum_timeout},
    {'4', "Sleep time in millieseconds after main component firmware", "update.",
     default_reset_sleep_timeout},
};

constexpr char usage_options[] = R"(
  Options are:
    -f             Force firmware update for selected devices
    -w <filename>  Write data to output file. Used in reading component data
    -r <filename>  Create RMA Output log file
    -p <dirname>   Path to the firmwware files. If no path is specified,
                   the current directory is used.
    -l <filename>  Output log file name (default: zelfwupdate.log)
    -t <filename>  Output trace file name (default: zelfwtrace.log)
    -a             Continue updating all devices after one failure
    -m             Display progress window while updating (Windows only)
    -n x           Display output level where "x" can be:
                   0 = Quiet (No output to display)
                   1 = Verbose output
                   2 = Verbose and Debug output
                   Note: If "-n" option is not specified, the predefined
                         command output will be shown
    -o x           Miscellaneous options.  To see available values for
                   "x", use -o ?
    -?             Usage (this message) and additional help information

)";

constexpr char help_text[] = R"(
EXAMPLE COMMANDS
------------------
1.  List all attached devices with support for the update interface:

       zelfwupdate -L

2.  List attached devices with the USB product ID of 3C7A or 3C02:

       zelfwupdate -L -d 3C7A -d 3C02

3.  List attached devices with the USB serial number 41-FFFFF:

       zelfwupdate -L -s 41-FFFFF

4.  Update all attached devices with firmware files version greater than
    the device version:

       zelfwupdate -U

5.  Update the USB device with product ID 3C02 if the version of the matching
    firmware file is greater than the device version:

       zelfwupdate -U -d 3C02

6.  Force the update of the USB device with product ID 3C02:

       zelfwupdate -U -d 3C02 -f

7.  Use the firmware update file named zel3C06.dat to update the matching USB
    device if firmware file is greater than the device version:

       zelfwupdate -F zel3C06.dat

8.  Use the firmware update file named zel3C06.dat and force the update of the
    matching USB device:

       zelfwupdate -F zel3C06.dat -f

9.  Use the configuration file named zelflash.cfg and update all USB devices
    with matching firmware files where the file version is greater than the
    device version:

       zelfwupdate -c zelflash.cfg -f

10. Read component 1 data and write to output file named zel35355_comp1.dat:

       zelfwupdate -G 1 -w zel35355_comp1.dat


CONFIGURATION FILE
------------------
Configuration file format:
  '#' as first character of line indicates comment line
  filename - names a firmware file to used

There can be multiple firmware files listed.  Each must be on different lines.
The USB Product ID and file EC levels are extracted from each file.  Only
firmware files with matching attached devices will be processed.

To force a firmware update, create a file (in the same directory as the
USB firmware file) with the firmware file name plus ".force".  For example,
to force zel3524.dat create 'zel3524.dat.force'.  Upon successful update of
the USB device, the file with the ".force" extension will be deleted.


LOG FILES
---------
Log file automatically created:    zelfwupdate.log on Windows
                                   /tmp/zelfwupdate.log on Linux
Use -l <filename> to write to a different log file.  To disable log file
from being created, use "-l 0".


TRACE FILES
-----------
Trace file automatically created:  zelfwtrace.log on Windows
                                   /tmp/zelfwtrace.log on Linux
Use -t <filename> to write to a different trace file.  To disable trace file
from being created, use "-t 0".

)";

constexpr char option_help_text[] =
    "Miscellaneous (-o) options\n"
    "0     Reverse component EC level bytes\n"
    "1     Use EC level from firmware file Information Record\n"
    "2     Disable background thread reading\n"
    "3     Show old progress information (wrwrwr...)\n"
    "4     Skip version checking\n"
    "5     Enable OEM (non-KVRN) devices\n"
    "\n";

constexpr const char* ExitCodeDescription[] = {
    "All processing completed successfully",
    "Check usage of utility",
    "Must be 'root' user on Linux",
    "Could not access USB HID interface",
    "Unexpected error during processing",
    "No supported devices found",
    "No devices updated",
    "No devices reset",
    "Error reseting device",
    "Device disconnected during update",
    "Update failed",
    "Firmware file corrupted",
    "Segmentation Fault",
    "No output file specified",
};
constexpr int last_exit_code = static_cast<int>(std::size(ExitCodeDescription)) - 1;
static_assert(last_exit_code == EXIT_NO_OUTPUT_FILE);

constexpr int version_major = 1;
constexpr int version_minor = 1;
constexpr int version_fix = 3;

}  // namespace

void usage() {
    fprintf(stdout, "%s", usage_commands);
    fprintf(stdout,
            "    -0 <timeout>   Response timeout in milliseconds for component information\n");
    fprintf(stdout, "                   response. Default time is %d milliseconds/%4.3f seconds.\n",
            default_information_timeout, default_information_timeout / 1000.0);
    for (const TimeoutText& text : timeout_texts) {
        fprintf(stdout, "    -%c <timeout>   %s\n", text.option, text.first_line);
        fprintf(stdout, "                   %s Default time is %d milliseconds/%d seconds.\n",
                text.second_line_start, text.default_milliseconds,
                text.default_milliseconds / 1000);
    }
    fprintf(stdout, "%s", usage_options);
}

void help() {
    fprintf(stdout, "%s", help_text);
}

void option_help() {
    fprintf(stdout, "%s", option_help_text);
}

void show_exit_code_description(int code) {
    if (code >= 0 && code <= last_exit_code) {
        fprintf(stdout, "Exit Code %d:  %s\n", code, ExitCodeDescription[code]);
    } else {
        fprintf(stdout, "Exit Code %d:  Unrecognized exit code, valid range 0-%d\n", code,
                last_exit_code);
    }
    fflush(stdout);
}

void show_version(int console) {
    char fix[16];
    snprintf(fix, sizeof(fix), ".%d", version_fix);
    writelog(console, "Quenta Firmware Update Utility\n\n");
    writelog(console, "Version %d.%d%s%s\n", version_major, version_minor, fix, " (i386)");
    writelog(console, "Copyright (c) 2026 the zelfwupdate project\n");
    writelog(console, "Released under the MIT License\n");
}
