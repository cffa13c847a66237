#include "firmware/firmware_search.h"

#include "firmware/component_text.h"
#include "firmware/firmware_file.h"
#include "journal/file_handle.h"
#include "journal/output.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

FlashFile files[max_list_entries];
int numberOfusbFlashFiles = 0;

namespace {

constexpr int directory_unreadable = 7;

/// A pipe from which nothing comes for so many milliseconds has ended.
constexpr int longest_silence = 2000;

/// Longest name that fits a row of `fwfilename`.
constexpr std::size_t max_name_length = sizeof fwfilename[0] - 1;

struct DirectoryCloser {
    void operator()(DIR* directory) const { static_cast<void>(closedir(directory)); }
};
using DirectoryHandle = std::unique_ptr<DIR, DirectoryCloser>;

/// True when the text fitted its field.
template <std::size_t size>
bool copy_text(char (&field)[size], const std::string& text) {
    field[text.copy(field, size - 1)] = '\0';
    return text.size() < size;
}

bool is_regular_file(DIR* directory, const dirent& entry) {
    if (entry.d_type != DT_UNKNOWN) {
        return entry.d_type == DT_REG;
    }
    // The file system keeps no types in its directories.
    struct stat status = {};
    return fstatat(dirfd(directory), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(status.st_mode);
}

/// Appends a name of at most `max_name_length` characters. When the list is full, says so and
/// returns false: the caller stops.
bool add_candidate(const std::string& name) {
    if (numberOffwfilenames >= max_list_entries) {
        writelog(1, "More than %d firmware files, '%s' and those after it are left out\n",
                 max_list_entries, name.c_str());
        return false;
    }
    copy_text(fwfilename[numberOffwfilenames], name);
    ++numberOffwfilenames;
    return true;
}

/// A configuration file is a file, or a pipe from another program; never a directory or device.
class ConfigFile {
  public:
    explicit ConfigFile(const char* path) : path_(path) {
        FileDescriptor file(open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        struct stat status = {};
        if (file.is_open() && fstat(file.get(), &status) == 0 &&
            (S_ISREG(status.st_mode) || S_ISFIFO(status.st_mode))) {
            stream_ = stream_of(std::move(file), "r");
            // A pipe that nobody has opened for writing yet reads as one that has ended.
            has_ended_ = stream_ == nullptr || (S_ISFIFO(status.st_mode) && !wait_for_writer());
        }
    }
    bool is_open() const { return stream_ != nullptr; }
    /// EOF at the end.
    int next_character() {
        while (!has_ended_) {
            errno = 0;
            const int character = fgetc(stream_.get());
            if (character != EOF) {
                return character;
            }
            has_ended_ = errno != EAGAIN || !wait_for_writer();
            clearerr(stream_.get());
        }
        return EOF;
    }

  private:
    /// False, with a line, when the writer of a pipe neither writes nor closes it for so long that
    /// it counts as ended.
    bool wait_for_writer() {
        pollfd pipe = {fileno(stream_.get()), POLLIN, 0};
        if (poll(&pipe, 1, longest_silence) > 0) {
            return true;
        }
        writelog(1, "Nothing came from '%s' for %d seconds, it counts as ended\n", path_,
                 longest_silence / 1000);
        return false;
    }

    const char* path_;
    FileHandle stream_;
    bool has_ended_ = true;
};

struct ConfigLine {
    std::string text;       ///< without its newline, at most one character more than a name
    bool has_zero = false;  ///< a zero byte, which no file name holds
};

/// Reads one line of any length; false at the end of the file.
bool read_config_line(ConfigFile& file, ConfigLine& line) {
    line.text.clear();
    line.has_zero = false;
    int character = file.next_character();
    if (character == EOF) {
        return false;
    }
    for (; character != EOF && character != '\n'; character = file.next_character()) {
        line.has_zero = line.has_zero || character == 0;
        if (line.text.size() <= max_name_length) {
            line.text.push_back(static_cast<char>(character));
        }
    }
    return true;
}

/// Listed as unknown, a type counts as unspecified from there on.
void count_unknown_as_unspecified(FlashFile& row) {
    if (row.comp_type == FILE_TYPE_UNKNOWN) {
        row.comp_type = FILE_TYPE_UNSPECIFIED;
    }
}

/// The summary of an open file, in the row's terms.
FlashFile summary_of(FILE* file, const char* name) {
    FlashFile row = {};
    read_file_info(file, name, row.product_id, row.ec_version, row.comp_id, row.ec_level,
                   row.comp_type, row.build_level, row.version_method);
    count_unknown_as_unspecified(row);
    return row;
}

void list_file(FlashFile& row) {
    const char* type = file_type_text(row.comp_type);
    writelog(1, "  %-25s   PID: %04x COMP: %d TYPE: %-3s  EC=%02x.%02x%-3s, Version='%d'\n",
             row.filename, static_cast<unsigned int>(row.product_id), row.comp_id, type,
             (row.ec_level >> 8) & 0xFF, row.ec_level & 0xFF, build_suffix(row.build_level).text,
             row.ec_version);
    count_unknown_as_unspecified(row);
}

void read_candidate(const char* name) {
    FlashFile row = {};
    const std::string directory = DirName;
    if (!copy_text(row.filename, name) || !copy_text(row.path, directory) ||
        !copy_text(row.fullname, directory + name)) {
        writedebug("name too long, file '%s%s' left out\n", DirName, name);
        return;
    }
    writedebug("using file '%s'\n", row.fullname);
    if (read_file_info(row.fullname, row.product_id, row.ec_version, row.comp_id, row.ec_level,
                       row.comp_type, row.build_level, row.version_method) != 0) {
        return;
    }
    list_file(row);
    files[numberOfusbFlashFiles] = row;
    ++numberOfusbFlashFiles;
}

void append_slash_to_directory() {
    const std::size_t length = strlen(DirName);
    if (length > 0 && length + 1 < sizeof DirName) {
        DirName[length] = '/';
        DirName[length + 1] = '\0';
    }
}

std::string force_marker_name(const char* firmware_name) {
    return std::string(firmware_name) + ".force";
}

}  // namespace

int search_firmware_files() {
    numberOffwfilenames = 0;
    const DirectoryHandle directory(opendir(DirName));
    if (directory == nullptr) {
        return directory_unreadable;
    }
    writelog(0, "Looking firmware files in directory %s\n", DirName);
    while (const dirent* entry = readdir(directory.get())) {
        if (!has_extension(entry->d_name, ".dat") || !is_regular_file(directory.get(), *entry)) {
            continue;
        }
        if (strlen(entry->d_name) > max_name_length) {
            writedebug("name too long, file '%s' left out\n", entry->d_name);
            continue;
        }
        if (!add_candidate(entry->d_name)) {
            break;
        }
        writelog(0, "  Adding file '%s/%s' to list\n", DirName, entry->d_name);
    }
    return 0;
}

void read_config_file(const char* path) {
    numberOffwfilenames = 0;
    ConfigFile file(path);
    if (!file.is_open()) {
        return;
    }
    writelog(Verbose, " Reading '%s' for flash configuration\n", path);
    ConfigLine line;
    for (int number = 1; read_config_line(file, line); ++number) {
        if (!line.text.empty() && line.text.front() == '#') {
            continue;
        }
        if (line.text.size() > max_name_length) {
            writelog(1, "Line %d of '%s' is longer than %d characters, line skipped\n", number,
                     path, static_cast<int>(max_name_length));
        } else if (line.has_zero) {
            writelog(1, "Line %d of '%s' holds a zero byte, line skipped\n", number, path);
        } else if (!add_candidate(line.text)) {
            break;
        }
    }
}

int read_firmware_files() {
    std::fill(std::begin(files), std::end(files), FlashFile{});
    numberOfusbFlashFiles = 0;
    writedebug("numberOffwfilenames=%d (sirName='%s')\n", numberOffwfilenames, DirName);
    if (numberOffwfilenames < 1) {
        writelog(1, "No firmware files!\n");
        return 0;
    }
    append_slash_to_directory();
    writelog(1, "Firmware files:\n");
    const int count = std::min(numberOffwfilenames, max_list_entries);
    for (int i = 0; i < count; ++i) {
        read_candidate(fwfilename[i]);
    }
    return 0;
}

bool is_as_listed(const FlashFile& listed, FILE* file) {
    if (fseek(file, 0, SEEK_SET) != 0) {
        return false;
    }
    const std::string name = std::string(listed.path) + listed.filename;
    const FlashFile now = summary_of(file, name.c_str());
    const bool is_same_component = comp_update_id > 0 || now.comp_id == listed.comp_id;
    return is_same_component && now.product_id == listed.product_id &&
           now.ec_level == listed.ec_level && now.ec_version == listed.ec_version &&
           now.build_level == listed.build_level && now.comp_type == listed.comp_type &&
           now.version_method == listed.version_method;
}

int is_there_a_firmware_file_for_device(int product_id) {
    if (device_firmware_match_only != 1) {
        return 1;
    }
    return std::any_of(std::begin(files), std::end(files),
                       [product_id](const FlashFile& row) { return row.product_id == product_id; })
               ? 1
               : 0;
}

bool force_marker_exists(const char* firmware_name) {
    return open_regular_file(force_marker_name(firmware_name).c_str()) != nullptr;
}

void delete_force_marker(const char* firmware_name) {
    const std::string marker = force_marker_name(firmware_name);
    if (remove(marker.c_str()) != 0) {
        writelog(1, "Could not delete '%s', the next run forces this update again\n",
                 marker.c_str());
    }
}
