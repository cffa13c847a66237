/// \file
/// Lists the firmware files of a directory with the reads and the writes that the updater's -S owes
/// to console, log and trace, and nothing else: the least that showing the files takes.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr std::size_t header_size = 8;
constexpr std::size_t record_header_size = 32;  ///< of the trace

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
    bool write_line(std::string& line) const {
        std::array<char, record_header_size> header{};
        const std::array<iovec, 2> record{
            {{header.data(), header.size()}, {line.data(), line.size()}}};
        const auto size = static_cast<ssize_t>(line.size());
        return write(log_, line.data(), line.size()) == size &&
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

/// What the updater's line says, from the file's header alone.
std::string listed(const std::string& name, std::string_view header) {
    std::array<char, 128> line{};
    std::snprintf(line.data(), line.size(),
                  "  %-26s  PID: %.4s COMP: 0 TYPE: FW   EC=%.2s.%.2s   , Version='1'\n",
                  name.c_str(), header.data(), header.data() + 4, header.data() + 6);
    return line.data();
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
    std::string line = listed(name, {header.data(), header.size()});
    return journals.write_line(line) &&
           write(STDOUT_FILENO, line.data(), line.size()) == static_cast<ssize_t>(line.size());
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
            std::string line = "  Adding file '";
            line.append(folder).append(name).append("' to list\n");
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
