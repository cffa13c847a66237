#include "command_line/output_files.h"

#include "command_line/options.h"
#include "exit_code.h"
#include "settings.h"

#include <sys/stat.h>

#include <array>
#include <cstdio>
#include <cstring>

namespace {

struct OutputFile {
    char option;
    const char* name;  ///< empty when nothing is written
};

bool is_same(const struct stat& one, const struct stat& other) {
    return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

/// Where the file's own name begins in its path.
const char* own_name(const char* path) {
    const char* const slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

bool find_directory(const char* path, struct stat& about) {
    std::array<char, 256> directory = {};
    snprintf(directory.data(), directory.size(), "%.*s", static_cast<int>(own_name(path) - path),
             path);
    return stat(directory[0] == '\0' ? "." : directory.data(), &about) == 0;
}

/// Of files that exist the file system knows; of others, the directory and the name. A device or a
/// fifo holds nothing that could be destroyed.
bool is_one_file(const char* path, const char* other_path) {
    struct stat one = {};
    struct stat other = {};
    const bool one_exists = stat(path, &one) == 0;
    const bool other_exists = stat(other_path, &other) == 0;
    if (one_exists || other_exists) {
        return one_exists && other_exists && S_ISREG(one.st_mode) && is_same(one, other);
    }
    return strcmp(own_name(path), own_name(other_path)) == 0 && find_directory(path, one) &&
           find_directory(other_path, other) && is_same(one, other);
}

}  // namespace

int refuse_shared_files(const RunRequest& request) {
    const std::array files = {
        OutputFile{'l', request.log_filename}, OutputFile{'t', request.trace_filename},
        OutputFile{'r', request.rma_filename}, OutputFile{'w', OutputFilename}};
    for (std::size_t i = 0; i < files.size(); ++i) {
        for (std::size_t k = i + 1; k < files.size(); ++k) {
            if (files[i].name[0] != '\0' && files[k].name[0] != '\0' &&
                is_one_file(files[i].name, files[k].name)) {
                fprintf(stderr, "zelfwupdate: options -%c and -%c: both name the file '%s'\n",
                        files[i].option, files[k].option, files[k].name);
                return EXIT_USAGE;
            }
        }
    }
    return run_goes_on;
}
