/// \file
/// The candidate firmware file names, from the directory or a configuration file, the table of the
/// readable ones, and the marker files that force an update.
#pragma once

#include "settings.h"

#include <cstdio>

/// One readable firmware file.
struct FlashFile {
    int product_id;
    int comp_id;     ///< component that the file is for
    int ec_level;    ///< major * 256 + minor
    int ec_version;  ///< version digit of the header
    int comp_type;   ///< 1 firmware, 2 configuration, 3 font, 0 unspecified or unknown
    int build_level;
    int version_method;  ///< 0 increasing, 1 random
    char filename[255];  ///< the name as listed
    char path[260];      ///< `DirName` with its trailing "/"
    char fullname[260];  ///< `DirName` followed by the name
};

/// The readable firmware files in candidate order; rows past the count are zero.
extern FlashFile files[max_list_entries];
extern int numberOfusbFlashFiles;

/// Fills `fwfilename` with the regular files of `DirName` whose names end in ".dat". Returns 0, or
/// 7 when the directory can't be opened.
int search_firmware_files();

/// Fills `fwfilename` with the names of a configuration file, one a line, '#' starting a comment.
/// A file that can't be opened leaves no names.
void read_config_file(const char* path);

/// Appends "/" to a non-empty `DirName`, reads each file of `fwfilename`, lists the readable ones
/// and fills `files` with them. Returns 0.
int read_firmware_files();

/// True when `file`, from its start, is still what `listed` says of the file of that name. Its
/// component does not count when `-c` names one for all files.
bool is_as_listed(const FlashFile& listed, FILE* file);

/// 1 when any device is considered, or some row of `files` has this product ID.
int is_there_a_firmware_file_for_device(int product_id);

/// True when the marker "`firmware_name`.force" is there and can be read.
bool force_marker_exists(const char* firmware_name);

/// Deletes the marker of a firmware file.
void delete_force_marker(const char* firmware_name);
