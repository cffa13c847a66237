/// \file
/// Lists the firmware files of a directory with the reads and the writes that the updater's -S owes
/// to console, log and trace, and nothing else: each line formatted once, each record of the trace
/// with its time. The least that showing the files takes.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::size_t header_size = 8;
constexpr std::size_t record_header_size = 32;  ///< of the trace

using Line = std::array<char, 1024>;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};

class Journals {
  public:
    Journals(const char* log, const char* trace) : log_(opened(log)), trace_(opened(trace)) {}
    Journals(const Journals&) = delete;
    Journals& operator=(const Journals&) = delete;
    ~Journals() {
        close(log_);
        close(trace_);
    }

    /// Each message is written at once: a run may end at any time.
    bool write_line(Line& line) const {
        timeval now{};
        gettimeofday(&now, nullptr);
        std::array<char, record_header_size> header{};
        std::memcpy(header.data(), &now, sizeof now);
        const std::size_t length = std::strlen(line.data());
        const std::array<iovec, 2> record{{{header.data(), header.size()}, {line.data(), length}}};
        const auto size = static_cast<ssize_t>(length);
        return write(log_, line.data(), length) == size &&
               writev(trace_, record.data(), static_cast<int>(record.size())) ==
                   size + static_cast<ssize_t>(header.size());
    }

  private:
    static int opened(const char* path) {
        return open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    }

    int log_;
    int trace_;
};

unsigned hexadecimal(std::string_view digits) {
    return static_cast<unsigned>(std::strtoul(std::string(digits).c_str(), nullptr, 16));
}

/// What the updater's line says, from the file's header alone.
void list(Line& line, const std::string& name, std::string_view header) {
    std::snprintf(line.data(), line.size(),
                  "  %-25s   PID: %04x COMP: %d TYPE: %-3s  EC=%02x.%02x%-3s, Version='%d'\n",
                  name.c_str(), hexadecimal(header.substr(0, 4)), 0, "FW",
                  hexadecimal(header.substr(4, 2)), hexadecimal(header.substr(6, 2)), "", 1);
}

/// A name in the directory may be a fifo's or a device's: nothing but a file is read.
std::unique_ptr<std::FILE, CloseFile> opened_file(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    struct stat information = {};
    if (descriptor < 0 || fstat(descriptor, &information) != 0 || !S_ISREG(information.st_mode)) {
        return nullptr;
    }
    return std::unique_ptr<std::FILE, CloseFile>(fdopen(descriptor, "rb"));
}

bool show(const std::string& path, const std::string& name, const Journals& journals) {
    const auto file = opened_file(path);
    std::array<char, header_size> header{};
    if (file == nullptr || std::fread(header.data(), 1, header_size, file.get()) != header_size) {
        return false;
    }
    Line line;
    list(line, name, {header.data(), header.size()});
    const std::size_t length = std::strlen(line.data());
    return journals.write_line(line) &&
           write(STDOUT_FILENO, line.data(), length) == static_cast<ssize_t>(length);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fputs("usage: bare_lister DIRECTORY LOG TRACE\n", stderr);
        return 2;
    }
    const std::string folder = std::string(argv[1]) + "/";
    const std::unique_ptr<DIR, CloseDirectory> directory(opendir(argv[1]));
    if (directory == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    const Journals journals(argv[2], argv[3]);
    std::vector<std::string> names;
    while (const dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name.front() != '.') {
            Line line;
            std::snprintf(line.data(), line.size(), "  Adding file '%s%s' to list\n",
                          folder.c_str(), name.c_str());
            names.push_back(name);
            if (!journals.write_line(line)) {
                return 1;
            }
        }
    }
    for (const std::string& name : names) {
        if (!show(folder + name, name, journals)) {
            return 1;
        }
    }
    return 0;
}
