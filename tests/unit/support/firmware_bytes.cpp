#include "support/firmware_bytes.h"

#include "journal/output.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

FirmwareBytes& FirmwareBytes::record(std::uint8_t tag, unsigned int value,
                                     const std::vector<std::uint8_t>& payload) {
    return lying_record(static_cast<std::uint8_t>(payload.size()), tag, value, payload);
}

FirmwareBytes& FirmwareBytes::lying_record(std::uint8_t length, std::uint8_t tag,
                                           unsigned int value,
                                           const std::vector<std::uint8_t>& payload) {
    raw({length, tag, static_cast<std::uint8_t>(value >> 8U), static_cast<std::uint8_t>(value)});
    return raw(payload);
}

FirmwareBytes& FirmwareBytes::text_record(std::uint8_t tag, unsigned int value,
                                          const std::string& payload) {
    return record(tag, value, {payload.begin(), payload.end()});
}

FirmwareBytes& FirmwareBytes::raw(const std::vector<std::uint8_t>& bytes) {
    for (const std::uint8_t byte : bytes) {
        bytes_ += static_cast<char>(byte);
    }
    return *this;
}

FirmwareBytes& FirmwareBytes::end(std::uint8_t first, std::uint8_t second) {
    return raw({0, first, second});
}

TemporaryDirectory::TemporaryDirectory() {
    std::string name = (std::filesystem::temp_directory_path() / "zelf-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) {
        throw std::runtime_error("no temporary directory");
    }
    path_ = name;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryDirectory::write(const std::string& name, const std::string& content) const {
    std::ofstream file(path(name), std::ios::binary);
    file << content;
    file.close();
    if (!file) {
        throw std::runtime_error("could not write " + name);
    }
    return path(name);
}

OutputCapture::OutputCapture() {
    open_log_file(directory_.path("log").c_str());
    testing::internal::CaptureStdout();
}

OutputCapture::~OutputCapture() {
    if (!taken_) {
        take();
    }
}

WrittenOutput OutputCapture::take() {
    taken_ = true;
    close_log_file();
    return {testing::internal::GetCapturedStdout(), read_whole_file(directory_.path("log"))};
}

std::string read_whole_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}
