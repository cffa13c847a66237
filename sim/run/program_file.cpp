#include "run/program_file.h"

#include "common/file_access.h"
#include "guard/terms.h"

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <system_error>

namespace zelfsim {

namespace {

/// The first bytes of a file; zeroes behind its end, and where it cannot be read.
std::array<char, EI_NIDENT> beginning(const std::string& file) {
    std::array<char, EI_NIDENT> bytes{};
    const zelf::FileDescriptor handle(open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!handle.is_open() || read(handle.get(), bytes.data(), bytes.size()) < 0) {
        bytes.fill(0);
    }
    return bytes;
}

bool is_executable(const std::string& file) {
    std::error_code error;
    return std::filesystem::is_regular_file(file, error) && access(file.c_str(), X_OK) == 0;
}

}  // namespace

const char* word_size_name(WordSize size) {
    return size == WordSize::bits32 ? "32-bit" : "64-bit";
}

WordSize own_word_size() {
    return sizeof(void*) == sizeof(std::uint32_t) ? WordSize::bits32 : WordSize::bits64;
}

std::optional<WordSize> word_size_of(const std::string& file) {
    const auto bytes = beginning(file);
    if (std::memcmp(bytes.data(), ELFMAG, SELFMAG) != 0) {
        return std::nullopt;
    }
    switch (bytes[EI_CLASS]) {
        case ELFCLASS32:
            return WordSize::bits32;
        case ELFCLASS64:
            return WordSize::bits64;
        default:
            return std::nullopt;
    }
}

bool is_script(const std::string& file) {
    const auto bytes = beginning(file);
    return bytes[0] == '#' && bytes[1] == '!';
}

bool changes_rights(const std::string& file) {
    struct stat status {};
    return stat(file.c_str(), &status) == 0 && (status.st_mode & (S_ISUID | S_ISGID)) != 0;
}

bool is_simulation(const std::string& file) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error) || !word_size_of(file)) {
        return false;
    }
    const zelf::Bytes bytes = zelf::read_bytes_of(file);
    const std::string_view mark = guard::simulation_mark;
    // With the ending, so that no longer name passes for it.
    const auto end = mark.data() + mark.size() + 1;
    return std::search(bytes.begin(), bytes.end(), mark.data(), end) != bytes.end();
}

std::string find_command(const std::string& command) {
    if (command.find('/') != std::string::npos) {
        return is_executable(command) ? std::filesystem::absolute(command).string() : "";
    }
    const char* path = std::getenv("PATH");
    std::istringstream search_path(path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin");
    for (std::string folder; std::getline(search_path, folder, ':');) {
        const std::string file = (folder.empty() ? "." : folder) + "/" + command;
        if (!command.empty() && is_executable(file)) {
            return std::filesystem::absolute(file).string();
        }
    }
    return "";
}

}  // namespace zelfsim
