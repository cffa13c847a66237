#include "run/stage.h"

#include "common/file_access.h"
#include "guard/terms.h"
#include "run/simulations.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace zelfsim {

namespace {

constexpr mode_t readable_by_all = 0755;

std::string make_directory() {
    // Root has a place that no one else writes to and that a restart empties.
    for (std::string name : {"/run/zelfwsim-XXXXXX", "/tmp/zelfwsim-XXXXXX"}) {
        if (mkdtemp(name.data()) != nullptr) {
            return name;
        }
    }
    throw std::system_error(errno, std::generic_category(), "/tmp");
}

std::string name_of(const std::string& file) {
    return std::filesystem::path(file).filename().string();
}

}  // namespace

Stage::Stage() : directory_(make_directory()) {
    // For a command that gives up its rights.
    chmod(directory_.c_str(), readable_by_all);
    zelf::open_for_append(report_file(), true);
}

Stage::~Stage() {
    std::error_code error;
    std::filesystem::remove_all(directory_, error);
}

std::string Stage::folder(WordSize size) const {
    std::string folder = directory_ + "/lib/" + triplet(size);
    std::filesystem::create_directories(folder);
    return folder;
}

void Stage::set_library(WordSize size, const std::string& file) {
    std::filesystem::create_symlink(std::filesystem::absolute(file),
                                    folder(size) + "/" + simulation_file);
}

void Stage::preload(WordSize size, const std::string& file) {
    const std::string name = name_of(file);
    std::filesystem::create_symlink(std::filesystem::absolute(file), folder(size) + "/" + name);
    if (std::find(preloads_.begin(), preloads_.end(), name) == preloads_.end()) {
        preloads_.push_back(name);
    }
}

std::map<std::string, std::string> Stage::environment() const {
    const std::string place = directory_ + "/$LIB/";
    std::string list;
    for (const std::string& name : preloads_) {
        list += list.empty() ? "" : ":";
        list += place;
        list += name;
    }
    const char* own = std::getenv("LD_PRELOAD");
    if (own != nullptr && *own != '\0') {
        list += std::string(":") + own;
    }
    return {{"LD_PRELOAD", list},
            {guard::library_variable, place + simulation_file},
            {guard::report_variable, report_file()}};
}

std::string Stage::report() const {
    const zelf::Bytes bytes = zelf::read_bytes_of(report_file());
    return {bytes.begin(), bytes.end()};
}

}  // namespace zelfsim
