/// \file
/// The option variables, with their defaults; the command line sets them, and every room reads
/// them.
#pragma once

#include <array>

struct flashEntry;

/// Rows of each selection and file name list.
constexpr int max_list_entries = 256;

// Time-outs and the sleep after a reset, in milliseconds.
constexpr int default_information_timeout = 100;
constexpr int default_erase_timeout = 10000;
constexpr int default_command_timeout = 5000;
constexpr int default_checksum_timeout = 30000;
constexpr int default_reset_sleep_timeout = 2000;

extern int information_timeout;  ///< -0: answer to an information query
extern int erase_timeout;        ///< -1: answer to the erase command
extern int command_timeout;      ///< -2: answer to each firmware record
extern int checksum_timeout;     ///< -3: answer to the checksum
extern int reset_sleep_timeout;  ///< -4: sleep after the main component's update

extern int force_update;                     ///< -f
extern int continue_on_failure;              ///< -a
extern int display_desktop_progress;         ///< -m, without effect on this platform
extern int comp_update_id;                   ///< -c, -1 when not given
extern int get_component_number;             ///< -G, -1 when not given
extern int list_devices;                     ///< 1 with -L; nothing reads it
extern int select_devices;                   ///< 1 when -d or -s was given
extern int device_firmware_match_only;       ///< 1 with -U, -F and -C
extern int sdv_dawu_hw;                      ///< -o 0: swap the bytes of component levels
extern int use_information_record_ec_level;  ///< -o 1
extern int background_read;                  ///< 0 with -o 2
extern int old_progress;                     ///< -o 3
extern int skip_version_check;               ///< -o 4
extern int oem_vendor;                       ///< -o 5
extern int extended_components;              ///< -o 6; nothing reads it
extern int check_for_update_only;            ///< -o 99

extern char OutputFilename[255];  ///< -w, empty when not given
/// -p, empty when not given; keeps room for the "/" that `read_firmware_files` appends.
extern char DirName[256];

extern char fwfilename[max_list_entries][255];  ///< candidate firmware file names
extern int numberOffwfilenames;

struct DeviceListEntry {
    char PIDstr[20];  ///< product ID as typed
    flashEntry* fe;   ///< the row of the device table that it selected, or null
};
struct SerialNoListEntry {
    char serial_number[256];
    flashEntry* fe;  ///< the row of the device table that it selected, or null
};
extern DeviceListEntry device_list[max_list_entries];  ///< -d
extern int NumberOfDeviceListEntries;
extern SerialNoListEntry serial_no_list[max_list_entries];  ///< -s
extern int NumberOfSerialNoListEntries;

/// Clears the name buffers and the list tables.
void reset_options();
