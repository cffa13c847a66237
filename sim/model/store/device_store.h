/// \file
/// Where one device keeps its state and images: its directory, or memory.
#pragma once

#include "common/file_access.h"
#include "model/device/basics.h"
#include "model/store/device_state.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace zelfsim {

/// In front of a stored record's payload: its length, the tag, two value bytes.
inline constexpr std::size_t stored_record_head = 4;

class DeviceStore {
  public:
    /// Keeps everything in memory.
    DeviceStore() = default;
    /// Keeps everything in `directory`, which need not exist yet.
    explicit DeviceStore(std::string directory) : directory_(std::move(directory)) {}

    /// Takes over what was saved before, if anything was. Throws FileError.
    void load(DeviceState& state) const;
    void save(const DeviceState& state);

    /// Empties the staging area.
    void begin_staging();
    /// Adds to the staging area; the file grows by just these bytes.
    void append_staging(ByteView bytes);
    /// What the staging area holds, an unfinished last record cut off.
    Bytes load_staging();
    /// The staging area becomes the image of a component.
    void keep_staging(std::uint8_t component);
    void drop_staging();

    /// The image of a component, from its first record to the checksum; empty when the component
    /// was never updated.
    Bytes image(std::uint8_t component) const;

    void add_history(std::string_view line);

  private:
    bool persistent() const { return !directory_.empty(); }
    void make_directory();
    std::string path(const std::string& name) const { return directory_ + "/" + name; }

    std::string directory_;
    zelf::FileDescriptor staging_file_;
    Bytes staging_;                         // without a directory
    std::map<std::uint8_t, Bytes> images_;  // without a directory
};

}  // namespace zelfsim
