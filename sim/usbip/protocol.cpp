#include "usbip/protocol.h"

#include "model/device/descriptors.h"
#include "remote/bus_id.h"

#include <algorithm>
#include <string_view>

namespace zelfsim::usbip {

namespace {

constexpr std::uint16_t protocol_version = 0x0111;

// A device is its path, its bus ID, three numbers, three halves and six bytes.
static_assert(device_size ==
              path_size + bus_id_size + 3 * sizeof(std::uint32_t) + 3 * sizeof(std::uint16_t) + 6);

class Writer {
  public:
    Writer& byte(std::size_t value) {
        bytes_.push_back(static_cast<std::uint8_t>(value & 0xFF));
        return *this;
    }
    Writer& half(std::uint16_t value) { return byte(value >> 8U).byte(value); }
    Writer& word(std::uint32_t value) {
        return half(static_cast<std::uint16_t>(value >> 16U))
            .half(static_cast<std::uint16_t>(value & 0xFFFF));
    }
    /// A field of fixed size, cut or filled with NULs; its last byte is always a NUL.
    Writer& text(std::string_view value, std::size_t size) {
        value = value.substr(0, size - 1);
        bytes_.insert(bytes_.end(), value.begin(), value.end());
        bytes_.insert(bytes_.end(), size - value.size(), 0);
        return *this;
    }
    Writer& zeros(std::size_t count) {
        bytes_.insert(bytes_.end(), count, 0);
        return *this;
    }
    Bytes take() { return std::move(bytes_); }

  private:
    Bytes bytes_;
};

std::uint16_t half_at(ByteView bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] << 8U | bytes[at + 1]);
}

std::uint32_t word_at(ByteView bytes, std::size_t at) {
    return std::uint32_t{half_at(bytes, at)} << 16U | half_at(bytes, at + 2);
}

/// Two bytes of a setup packet or descriptor, which are little-endian.
std::uint16_t little_at(ByteView bytes, std::size_t at) {
    return static_cast<std::uint16_t>(bytes[at] | bytes[at + 1] << 8U);
}

Setup setup_at(ByteView bytes, std::size_t at) {
    return Setup{bytes[at], bytes[at + 1], little_at(bytes, at + 2), little_at(bytes, at + 4),
                 little_at(bytes, at + 6)};
}

Writer reply_header(UrbCommand command, std::uint32_t sequence, int status) {
    Writer writer;
    writer.word(static_cast<std::uint32_t>(command)).word(sequence).zeros(12);
    writer.word(static_cast<std::uint32_t>(status));
    return writer;
}

}  // namespace

Operation read_operation(ByteView bytes) {
    return {half_at(bytes, 0), half_at(bytes, 2)};
}

Bytes operation_reply(OperationCode code, OperationStatus status) {
    return Writer()
        .half(protocol_version)
        .half(static_cast<std::uint16_t>(code))
        .word(static_cast<std::uint32_t>(status))
        .take();
}

Bytes count_bytes(std::size_t count) {
    return Writer().word(static_cast<std::uint32_t>(count)).take();
}

std::string read_bus_id(ByteView bytes) {
    const auto field = bytes.first(bus_id_size);
    return {field.begin(), std::find(field.begin(), field.end(), 0)};
}

std::uint32_t device_number(const Peripheral& peripheral) {
    return std::uint32_t{peripheral.description().bus} << 16U | peripheral.address();
}

Bytes device_record(const Peripheral& peripheral) {
    const DeviceDescription& device = peripheral.description();
    const Bytes descriptor = device_descriptor(device, peripheral.state().bcd);
    const std::string id = remote::bus_id(peripheral);
    Writer writer;
    writer.text("/sys/devices/zelfwsim/" + device.name + "/" + id, path_size).text(id, bus_id_size);
    writer.word(device.bus).word(peripheral.address()).word(full_speed);
    writer.half(device.vendor).half(device.product).half(little_at(descriptor, 12));
    writer.byte(descriptor[4]).byte(descriptor[5]).byte(descriptor[6]);
    writer.byte(configuration_value).byte(descriptor[17]).byte(device.interfaces.size());
    return writer.take();
}

Bytes interface_records(const Peripheral& peripheral) {
    const Bytes bytes = configuration_descriptor(peripheral.description());
    Writer writer;
    for (std::size_t at = 0; at < bytes.size(); at += bytes[at]) {
        if (bytes[at + 1] == descriptor_interface) {
            writer.byte(bytes[at + 5]).byte(bytes[at + 6]).byte(bytes[at + 7]).byte(0);
        }
    }
    return writer.take();
}

UrbRequest read_urb(ByteView bytes) {
    UrbRequest request;
    request.command = word_at(bytes, 0);
    request.sequence = word_at(bytes, 4);
    request.in = word_at(bytes, 12) != 0;
    request.endpoint = word_at(bytes, 16);
    if (request.is(UrbCommand::unlink)) {
        request.unlinked = word_at(bytes, 20);
        return request;
    }
    request.length = word_at(bytes, 24);
    request.packets = word_at(bytes, 32);
    request.setup = setup_at(bytes, 40);
    return request;
}

Bytes submit_reply(std::uint32_t sequence, int status, std::size_t actual, ByteView data) {
    Writer writer = reply_header(UrbCommand::submit_reply, sequence, status);
    writer.word(static_cast<std::uint32_t>(actual)).zeros(20);
    Bytes bytes = writer.take();
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

Bytes unlink_reply(std::uint32_t sequence, int status) {
    return reply_header(UrbCommand::unlink_reply, sequence, status).zeros(24).take();
}

}  // namespace zelfsim::usbip
