#include "support/scratch_directory.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace {

class Scratch {
  public:
    Scratch() {
        const char* const parent = std::getenv("TMPDIR");
        path_ = std::string(parent != nullptr ? parent : "/dev/shm") + "/zelf-fuzz-XXXXXX";
        if (mkdtemp(path_.data()) == nullptr) {
            std::perror(path_.c_str());
            std::abort();
        }
    }
    ~Scratch() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

}  // namespace

const std::string& scratch_directory() {
    static const Scratch scratch;
    return scratch.path();
}

std::string write_scratch_file(const std::string& name, std::span<const std::uint8_t> bytes) {
    std::string path = scratch_directory() + "/" + name;
    FILE* const file = std::fopen(path.c_str(), "wb");
    if (file == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() ||
        std::fclose(file) != 0) {
        std::perror(path.c_str());
        std::abort();
    }
    return path;
}
