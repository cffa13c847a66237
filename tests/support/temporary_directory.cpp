#include "support/temporary_directory.h"

#include <stdlib.h>

#include <stdexcept>

TemporaryDirectory::TemporaryDirectory()
    : path_((std::filesystem::temp_directory_path() / "zelf-test-XXXXXX").string()) {
    if (mkdtemp(path_.data()) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryDirectory::write(const std::string& name, const std::string& content) const {
    write_file(path(name), content);
    return path(name);
}
