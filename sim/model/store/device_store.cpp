#include "model/store/device_store.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <utility>

namespace zelfsim {

namespace {

constexpr const char* state_file = "state.toml";
constexpr const char* staging = "staging.bin";
constexpr const char* history = "history.tsv";

std::string image_name(std::uint8_t component) {
    return "image-" + std::to_string(component) + ".bin";
}

/// The length of the whole records at the front.
std::size_t whole_records(const Bytes& bytes) {
    std::size_t at = 0;
    while (at < bytes.size() && bytes[at] != 0 &&
           bytes.size() - at >= stored_record_head + bytes[at]) {
        at += stored_record_head + bytes[at];
    }
    return at;
}

}  // namespace

void DeviceStore::make_directory() {
    zelf::create_directories(directory_);
}

void DeviceStore::load(DeviceState& state) const {
    if (persistent() && zelf::exists(path(state_file))) {
        read_state(path(state_file), state);
    }
}

void DeviceStore::save(const DeviceState& state) {
    if (persistent()) {
        make_directory();
        zelf::replace_file(path(state_file), write_state(state));
    }
}

void DeviceStore::begin_staging() {
    staging_.clear();
    if (persistent()) {
        make_directory();
        staging_file_ = zelf::open_for_append(path(staging), true);
    }
}

void DeviceStore::append_staging(ByteView bytes) {
    if (!persistent()) {
        staging_.insert(staging_.end(), bytes.begin(), bytes.end());
        return;
    }
    if (!staging_file_.is_open()) {
        staging_file_ = zelf::open_for_append(path(staging), false);
    }
    append(staging_file_, path(staging), bytes);
}

Bytes DeviceStore::load_staging() {
    if (!persistent()) {
        return staging_;
    }
    Bytes bytes = zelf::read_bytes_of(path(staging));
    const std::size_t whole = whole_records(bytes);
    if (whole < bytes.size()) {
        bytes.resize(whole);
        std::error_code error;
        std::filesystem::resize_file(path(staging), whole, error);
    }
    return bytes;
}

void DeviceStore::keep_staging(std::uint8_t component) {
    if (!persistent()) {
        images_[component] = std::move(staging_);
        staging_.clear();
        return;
    }
    staging_file_ = zelf::FileDescriptor();
    const std::string image = path(image_name(component));
    if (std::rename(path(staging).c_str(), image.c_str()) != 0) {
        throw FileError(image, 0, std::strerror(errno));
    }
}

void DeviceStore::drop_staging() {
    staging_.clear();
    staging_file_ = zelf::FileDescriptor();
    if (persistent()) {
        std::error_code error;
        std::filesystem::remove(path(staging), error);
    }
}

Bytes DeviceStore::image(std::uint8_t component) const {
    if (persistent()) {
        return zelf::read_bytes_of(path(image_name(component)));
    }
    const auto found = images_.find(component);
    return found == images_.end() ? Bytes{} : found->second;
}

void DeviceStore::add_history(std::string_view line) {
    if (persistent()) {
        make_directory();
        append(zelf::open_for_append(path(history), false), path(history), line);
    }
}

}  // namespace zelfsim
