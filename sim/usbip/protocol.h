/// \file
/// The USB/IP protocol, version 1.1.1, as the kernel's vhci-hcd and the usbip tool speak it
/// (Documentation/usb/usbip_protocol.rst of the Linux kernel). All numbers are big-endian.
#pragma once

#include "model/device/basics.h"
#include "model/device/peripheral.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace zelfsim::usbip {

constexpr std::uint16_t default_port = 3240;

// Sizes on the wire.
constexpr std::size_t operation_size = 8;
constexpr std::size_t path_size = 256;
constexpr std::size_t bus_id_size = 32;
constexpr std::size_t device_size = 312;
constexpr std::size_t urb_header_size = 48;

/// Full speed, in the kernel's numbers.
constexpr std::uint32_t full_speed = 2;

enum class OperationCode : std::uint16_t {
    list_request = 0x8005,
    list_reply = 0x0005,
    import_request = 0x8003,
    import_reply = 0x0003,
};

enum class OperationStatus : std::uint32_t { ok = 0, busy = 2, no_device = 4, error = 5 };

/// What a connection begins with.
struct Operation {
    std::uint16_t version = 0;
    std::uint16_t code = 0;
};

/// Reads `operation_size` bytes.
Operation read_operation(ByteView bytes);
Bytes operation_reply(OperationCode code, OperationStatus status);
/// The number of devices of a list.
Bytes count_bytes(std::size_t count);

/// Reads `bus_id_size` bytes up to the first NUL.
std::string read_bus_id(ByteView bytes);

/// The number by which a host's transfers name an imported device.
std::uint32_t device_number(const Peripheral& peripheral);
/// `device_size` bytes.
Bytes device_record(const Peripheral& peripheral);
/// 4 bytes for each interface.
Bytes interface_records(const Peripheral& peripheral);

enum class UrbCommand : std::uint32_t {
    submit = 1,
    unlink = 2,
    submit_reply = 3,
    unlink_reply = 4
};

/// A host's request about a transfer.
struct UrbRequest {
    std::uint32_t command = 0;
    std::uint32_t sequence = 0;
    bool in = false;
    std::uint32_t endpoint = 0;
    std::uint32_t length = 0;    ///< submit: bytes that follow, or are asked for
    std::uint32_t packets = 0;   ///< submit: isochronous packets
    std::uint32_t unlinked = 0;  ///< unlink: the sequence number that is meant
    Setup setup;                 ///< submit, on endpoint 0

    bool is(UrbCommand which) const { return command == static_cast<std::uint32_t>(which); }
    bool isochronous() const { return packets != 0 && packets != 0xFFFFFFFF; }
};

/// Reads `urb_header_size` bytes.
UrbRequest read_urb(ByteView bytes);

/// `status` is 0 or a negative error number of Linux.
Bytes submit_reply(std::uint32_t sequence, int status, std::size_t actual, ByteView data);
Bytes unlink_reply(std::uint32_t sequence, int status);

}  // namespace zelfsim::usbip
