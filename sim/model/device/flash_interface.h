/// \file
/// The flash interface of a device: its state machine, seen from the device.
#pragma once

#include "model/device/basics.h"
#include "model/device/flash_answers.h"
#include "model/device/flash_command.h"
#include "model/device/image_receiver.h"
#include "model/store/device_store.h"

#include <cstdint>
#include <optional>

namespace zelfsim {

/// What the device makes of a command.
struct CommandResult {
    std::optional<Status> status;  ///< none when the device restarts instead of answering
    Duration delay{0};             ///< until the status is ready
    bool busy = false;             ///< takes no further command until then
};

class FlashInterface {
  public:
    /// `device`, `state` and `store` outlive this. Takes up an update where the state left it.
    FlashInterface(const DeviceDescription& device, DeviceState& state, DeviceStore& store);

    CommandResult carry_out(const FlashCommand& command);

    /// The data report as it is read next; a record read goes on to its next block.
    Bytes next_data();
    bool reading_records() const { return reading_.has_value(); }
    /// Replaces the data report of the last query.
    void set_data(Bytes data);

    /// Whether the stop command would end an update.
    bool stoppable() const;
    /// The component of the image on its way in, if known.
    std::optional<std::uint8_t> image_component() const;

    /// The device loses power or restarts: an unfinished image is lost, a finished one runs.
    void restart();

  private:
    struct Reading {
        Bytes image;
        std::size_t at = 0;
    };

    const FlashDescription& flash() const { return *device_.flash; }
    CommandResult answer(std::uint8_t flags) const;
    CommandResult answer_with(Bytes data);
    CommandResult level_or_stop();
    CommandResult erase();
    CommandResult record(ByteView record);
    CommandResult checksum(std::uint16_t sum);
    CommandResult component_version(std::uint8_t id);
    CommandResult component_list(bool extended);
    CommandResult read_records(std::uint8_t id);
    void break_component();
    void resume();
    void take_image();
    /// Ends the update on its way, if there is one, with a line of history.
    void give_up(const char* result);
    void add_history(const std::string& before, const std::string& after, std::uint16_t sum,
                     const char* result);

    const DeviceDescription& device_;
    DeviceState& state_;
    DeviceStore& store_;
    std::optional<ImageReceiver> receiver_;
    Bytes data_;
    std::optional<Reading> reading_;
};

}  // namespace zelfsim
