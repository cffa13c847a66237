#include "run/simulations.h"

#include <filesystem>

namespace zelfsim {

namespace {

std::filesystem::path own_directory() {
    std::error_code error;
    return std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
}

}  // namespace

const char* triplet(WordSize size) {
    return size == WordSize::bits32 ? "i386-linux-gnu" : "x86_64-linux-gnu";
}

const char* architecture(WordSize size) {
    return size == WordSize::bits32 ? "i386" : "amd64";
}

bool holds_simulation(const std::string& directory, WordSize size) {
    const std::string simulation = directory + "/" + simulation_file;
    return word_size_of(directory + "/" + guard_file) == size && word_size_of(simulation) == size &&
           is_simulation(simulation);
}

std::vector<std::string> simulation_places(const std::string& command, WordSize size) {
    const std::filesystem::path own = own_directory();
    std::error_code error;
    const std::filesystem::path program = std::filesystem::canonical(command, error);
    const char* preset = size == WordSize::bits32 ? "i386" : "release";
    return {own, program.parent_path() / "sim", own.parent_path().parent_path() / preset / "sim",
            own.parent_path() / "lib" / triplet(size) / "zelfwupdate"};
}

std::string find_simulation(const std::string& command, WordSize size) {
    for (const std::string& place : simulation_places(command, size)) {
        if (holds_simulation(place, size)) {
            return place;
        }
    }
    return "";
}

}  // namespace zelfsim
