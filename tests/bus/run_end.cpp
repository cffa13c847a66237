// Preloaded into the program: at its end it notes, in the file RUN_END, what every descriptor leads
// to that it opened and left open, one a line, and behind them the most memory that the run held,
// as "peak <KiB>".
#include <dirent.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>

namespace {

using Directory = std::unique_ptr<DIR, int (*)(DIR*)>;
using File = std::unique_ptr<FILE, int (*)(FILE*)>;

/// Number to file.
using Descriptors = std::map<int, std::string>;

Descriptors open_descriptors() {
    Descriptors open;
    const Directory directory(opendir("/proc/self/fd"), closedir);
    while (const dirent* const entry = directory == nullptr ? nullptr : readdir(directory.get())) {
        std::array<char, 4096> target = {};
        const ssize_t length =
            readlinkat(dirfd(directory.get()), entry->d_name, target.data(), target.size());
        const int number = static_cast<int>(std::strtol(entry->d_name, nullptr, 10));
        if (length > 0 && number != dirfd(directory.get())) {
            open[number] = std::string(target.data(), static_cast<std::size_t>(length));
        }
    }
    return open;
}

/// What the program was given.
Descriptors& inherited_descriptors() {
    static Descriptors descriptors;
    return descriptors;
}

[[gnu::constructor]] void note_start() {
    inherited_descriptors() = open_descriptors();
}

/// In KiB.
long peak_memory() {
    const std::string label = "VmHWM:";
    const File status(std::fopen("/proc/self/status", "r"), std::fclose);
    std::array<char, 256> line = {};
    while (status != nullptr &&
           std::fgets(line.data(), static_cast<int>(line.size()), status.get()) != nullptr) {
        if (label.compare(0, label.size(), line.data(), label.size()) == 0) {
            return std::strtol(line.data() + label.size(), nullptr, 10);
        }
    }
    return -1;
}

[[gnu::destructor]] void note_end() {
    std::string left_open;
    for (const auto& [number, target] : open_descriptors()) {
        const auto inherited = inherited_descriptors().find(number);
        if (inherited == inherited_descriptors().end() || inherited->second != target) {
            left_open += target + "\n";
        }
    }
    const char* const path = std::getenv("RUN_END");
    const File file(path == nullptr ? nullptr : std::fopen(path, "w"), std::fclose);
    if (file != nullptr) {
        std::fprintf(file.get(), "%speak %ld\n", left_open.c_str(), peak_memory());
    }
}

}  // namespace
