/// \file
/// Reads the first bytes of every file of a directory, and nothing else: the least that showing
/// the files takes.
#include <dirent.h>

#include <cstdio>
#include <memory>
#include <string>

namespace {

constexpr std::size_t header_size = 8;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
struct CloseDirectory {
    void operator()(DIR* directory) const { closedir(directory); }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fputs("usage: header_reader DIRECTORY\n", stderr);
        return 2;
    }
    const std::unique_ptr<DIR, CloseDirectory> directory(opendir(argv[1]));
    if (directory == nullptr) {
        std::perror(argv[1]);
        return 1;
    }
    while (const dirent* entry = readdir(directory.get())) {
        const std::string path = std::string(argv[1]) + "/" + entry->d_name;
        const std::unique_ptr<std::FILE, CloseFile> file(std::fopen(path.c_str(), "rb"));
        char header[header_size + 1] = {};
        if (file != nullptr && std::fread(header, 1, header_size, file.get()) == header_size) {
            std::printf("%s %s\n", entry->d_name, header);
        }
    }
    return 0;
}
